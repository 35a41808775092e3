#include "Secrets.h"

#include <Poco/RegularExpression.h>
#include <Poco/String.h>
#include <common/Config.h>
#include <common/Utils.h>

#include <sstream>

namespace {

const char* const kMask = "***";
const char* const kNames[] = {"password",   "passwd", "secret",      "token",
                              "credential", "apikey", "admin_params"};

bool isSecretName(const std::string& name) {
    for (const char* secret : kNames) {
        if (Poco::toLower(name).find(secret) != std::string::npos) return true;
    }
    return false;
}

bool carriesSecret(const std::string& text) {
    static const Poco::RegularExpression pattern(
        "://[^/]*@|(pass(word|phrase|wd)?|secret|token|credential|api_?key)=",
        Poco::RegularExpression::RE_CASELESS);
    Poco::RegularExpression::Match match;
    return pattern.match(text, match) > 0;
}

Poco::Dynamic::Var masked(const std::string& name, const Poco::Dynamic::Var& value);

Poco::JSON::Object::Ptr maskedObject(const Poco::JSON::Object& object) {
    Poco::JSON::Object::Ptr copy(new Poco::JSON::Object);
    for (const auto& [name, value] : object) copy->set(name, masked(name, value));
    return copy;
}

Poco::JSON::Array::Ptr maskedArray(const std::string& name, const Poco::JSON::Array& array) {
    Poco::JSON::Array::Ptr copy(new Poco::JSON::Array);
    for (const auto& value : array) copy->add(masked(name, value));
    return copy;
}

Poco::Dynamic::Var masked(const std::string& name, const Poco::Dynamic::Var& value) {
    if (value.isEmpty() || (value.isString() && value.toString().empty()))
        return value;  // shows that none is set
    if (isSecretName(name)) return kMask;
    if (value.type() == typeid(Poco::JSON::Object::Ptr))
        return maskedObject(*value.extract<Poco::JSON::Object::Ptr>());
    if (value.type() == typeid(Poco::JSON::Array::Ptr))
        return maskedArray(name, *value.extract<Poco::JSON::Array::Ptr>());
    if (value.isString()) return withoutSecrets(value.toString());
    return value;
}

}  // namespace

std::string withoutSecrets(const std::string& text) {
    return carriesSecret(text) ? kMask : text;
}

Poco::JSON::Object::Ptr settingsWithoutSecrets() {
    std::stringstream store;
    kel::configInstance().save(store, 0);
    const auto settings = kel::stringToJson(store.str());
    return maskedObject(settings ? *settings : Poco::JSON::Object());
}
