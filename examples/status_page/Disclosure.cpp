#include "Disclosure.h"

#include <Poco/RegularExpression.h>
#include <Poco/String.h>
#include <common/Config.h>
#include <common/Utils.h>

#include <algorithm>
#include <sstream>

namespace status_page {

namespace {

const std::string kCovered = "***";
const std::set<std::string> kLibrarySettings = {"http.apiDebug",
                                                "rpc.port",
                                                "hook.enable",
                                                "hook.timeoutSec",
                                                "hook.alive_interval",
                                                "hook.retry",
                                                "hook.retry_delay",
                                                "hook.on_server_started",
                                                "hook.on_server_keepalive",
                                                "openSSL.client.caConfig",
                                                "openSSL.server.privateKeyFile",
                                                "openSSL.server.certificateFile",
                                                "openSSL.server.caConfig",
                                                "openSSL.server.verificationMode",
                                                "openSSL.server.verificationDepth",
                                                "openSSL.server.loadDefaultCAFile",
                                                "openSSL.server.cipherList",
                                                "openSSL.server.extendedVerification",
                                                "openSSL.server.requireTLSv1"};
constexpr std::size_t kShortest = 4;  // shorter texts occur in log lines by chance

void replaceAll(std::string& text, const std::string& pattern, const std::string& by) {
    const Poco::RegularExpression expression(pattern, Poco::RegularExpression::RE_CASELESS);
    expression.subst(text, by, Poco::RegularExpression::RE_GLOBAL);
}

struct Credentials {
    std::string user;   // all between "://" and the last "@"
    std::string query;  // all from the first "?" or "#" behind that on
};

Credentials credentialsIn(const std::string& address) {
    const auto scheme = address.find("://");
    if (scheme == std::string::npos) return {};
    Credentials found;
    auto begin = scheme + 3;
    const auto at = address.rfind('@');
    if (at != std::string::npos && at > begin) {
        found.user = address.substr(begin, at - begin);
        begin = at;
    }
    const auto query = address.find_first_of("?#", begin);
    if (query != std::string::npos) found.query = address.substr(query);
    return found;
}

}  // namespace

Disclosure::Disclosure(const std::vector<std::string>& shown) : _shown(kLibrarySettings) {
    _shown.insert(shown.begin(), shown.end());
    std::stringstream store;
    kel::configInstance().save(store, 0);
    const auto settings = kel::stringToJson(store.str());
    _settings = coverObject("", settings ? *settings : Poco::JSON::Object());
    // The longest first: where a shorter text is part of a longer one, replacing it first would
    // leave the rest of the longer one readable.
    std::sort(_hidden.begin(), _hidden.end(),
              [](const auto& one, const auto& other) { return one.size() > other.size(); });
}

// A line may hold several addresses, with other text behind each of them.
std::string Disclosure::line(std::string line) const {
    for (const std::string& text : _hidden) Poco::replaceInPlace(line, text, kCovered);
    if (line.find("://") == std::string::npos) return line;
    replaceAll(line, R"((://)[^\s'"]*@)", "$1" + kCovered + "@");
    replaceAll(line, R"((://[^\s?#'"]*)[?#][^\s'"]*)", "$1?" + kCovered);
    return line;
}

std::string Disclosure::withoutCredentials(std::string text) {
    const Credentials found = credentialsIn(text);
    if (!found.query.empty()) Poco::replaceInPlace(text, found.query, "?" + kCovered);
    if (!found.user.empty()) Poco::replaceInPlace(text, found.user + "@", kCovered + "@");
    return text;
}

void Disclosure::hide(const std::string& text) {
    if (text.size() >= kShortest) _hidden.push_back(text);
}

// The parts are hidden one by one too, since a line may have the address in another form than the
// configuration.
void Disclosure::hideCredentials(const std::string& address) {
    const Credentials found = credentialsIn(address);
    hide(found.user);
    const auto colon = found.user.find(':');
    if (colon != std::string::npos) hide(found.user.substr(colon + 1));
    hide(found.query);
}

Poco::Dynamic::Var Disclosure::cover(const std::string& key, const Poco::Dynamic::Var& value) {
    if (value.type() == typeid(Poco::JSON::Object::Ptr)) {
        return coverObject(key + ".", *value.extract<Poco::JSON::Object::Ptr>());
    }
    if (value.type() == typeid(Poco::JSON::Array::Ptr)) {
        return coverArray(key, *value.extract<Poco::JSON::Array::Ptr>());
    }
    if (value.isEmpty() || (value.isString() && value.toString().empty())) return value;
    const bool isShown = _shown.count(key) > 0;
    if (isShown && !value.isString()) return value;
    const std::string text = value.toString();
    if (isShown) {
        hideCredentials(text);
        return withoutCredentials(text);
    }
    if (value.isString()) hide(text);
    return kCovered;
}

Poco::JSON::Object::Ptr Disclosure::coverObject(const std::string& prefix,
                                                const Poco::JSON::Object& object) {
    Poco::JSON::Object::Ptr covered(new Poco::JSON::Object);
    for (const auto& [name, value] : object) covered->set(name, cover(prefix + name, value));
    return covered;
}

Poco::JSON::Array::Ptr Disclosure::coverArray(const std::string& key,
                                              const Poco::JSON::Array& array) {
    Poco::JSON::Array::Ptr covered(new Poco::JSON::Array);
    for (const auto& value : array) covered->add(cover(key, value));
    return covered;
}

}  // namespace status_page
