#include "MaskedUrl.h"

#include <Poco/Exception.h>
#include <Poco/String.h>
#include <Poco/URI.h>

#include <algorithm>
#include <array>

namespace kel {

namespace {

const std::string kMask = "***";

// Rather one too many: what a log does not show can be looked up elsewhere.
bool looksSecret(const std::string& encodedName) {
    static constexpr std::array<const char*, 9> kParts = {"secret", "pass", "pwd",  "token",  "key",
                                                          "auth",   "cred", "sign", "session"};
    std::string name;
    try {
        Poco::URI::decode(encodedName, name);
    } catch (const Poco::Exception&) {
        return true;
    }
    Poco::toLowerInPlace(name);
    return std::any_of(kParts.begin(), kParts.end(),
                       [&](const char* part) { return name.find(part) != std::string::npos; });
}

// "name=value", or what stands in its place.
std::string maskedParameter(const std::string& parameter) {
    const auto equals = parameter.find('=');
    if (equals == std::string::npos || !looksSecret(parameter.substr(0, equals))) return parameter;
    return parameter.substr(0, equals + 1) + kMask;
}

// `text` follows the first '?' or '#'.
std::string maskedParameters(const std::string& text) {
    std::string masked;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const auto end = std::min(text.find_first_of("?&;#", begin), text.size());
        masked += maskedParameter(text.substr(begin, end - begin));
        if (end < text.size()) masked += text[end];
        begin = end + 1;
    }
    return masked;
}

// Up to the path, which may hold an '@' of its own.
std::string maskedAuthority(const std::string& text) {
    const auto slashes = text.find("//");
    const std::size_t begin = slashes == std::string::npos ? 0 : slashes + 2;
    const auto at = text.rfind('@', text.find('/', begin));
    if (at == std::string::npos || at < begin) return text;
    return text.substr(0, begin) + kMask + text.substr(at);
}

}  // namespace

std::string maskedUrl(const std::string& url) {
    const auto parameters = std::min(url.find_first_of("?#"), url.size());
    std::string masked = maskedAuthority(url.substr(0, parameters));
    if (parameters == url.size()) return masked;
    return masked + url[parameters] + maskedParameters(url.substr(parameters + 1));
}

}  // namespace kel
