#include "Settings.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Net/Utility.h>
#include <Poco/StringTokenizer.h>

#include "../config/Store.h"
#include "../log/UnitLog.h"
#include "ServerFiles.h"
#include "ShippedDefaults.h"

namespace kel::tls {

using Poco::Net::Context;

namespace {

constexpr UnitLog log("src/common/Tls");

// Reads the keys below one prefix. The error about a wrong value names the key.
class Reader {
    template <typename Read>
    auto naming(const std::string& name, Read&& read) const {
        try {
            return read();
        } catch (const Poco::Exception& exc) {
            refuse(name, exc.displayText());
        }
    }

public:
    explicit Reader(std::string prefix) : _prefix(std::move(prefix)) {}

    bool has(const std::string& name) const { return configStore().has(_prefix + name); }

    std::string text(const std::string& name, const std::string& otherwise = "") const {
        return expandedSetting(_prefix + name, otherwise);
    }

    int number(const std::string& name, int otherwise) const {
        return naming(name, [&] { return configStore().getInt(_prefix + name, otherwise); });
    }

    bool flag(const std::string& name, bool otherwise) const {
        return naming(name, [&] { return configStore().getBool(_prefix + name, otherwise); });
    }

    std::optional<int> optionalNumber(const std::string& name) const {
        if (!has(name)) return {};
        return number(name, 0);
    }

    [[noreturn]] void refuse(const std::string& name, const std::string& why) const {
        throw Poco::InvalidArgumentException(_prefix + name, why);
    }

    const std::string& prefix() const { return _prefix; }

private:
    const std::string _prefix;
};

Context::VerificationMode verificationMode(const Reader& read, const std::string& otherwise) {
    const std::string mode = read.text("verificationMode", otherwise);
    try {
        return Poco::Net::Utility::convertVerificationMode(mode);
    } catch (const Poco::Exception&) {
        read.refuse("verificationMode", "none of: none, relaxed, strict, once");
    }
}

// Handlers that ask a person are refused, because nobody sits at the console of a service.
std::string handler(const Reader& read, const std::string& key, const std::string& otherwise) {
    std::string name = read.text(key, otherwise);
    if (name == "KeyConsoleHandler" || name == "ConsoleCertificateHandler") {
        read.refuse(key, name + " asks a person at a console; a service has none");
    }
    return name;
}

void readProtocols(const Reader& read, Settings& settings) {
    settings.tls13Only = read.flag("requireTLSv1_3", false);
    using Poco::StringTokenizer;
    const StringTokenizer disabled(read.text("disableProtocols"), ";,",
                                   StringTokenizer::TOK_TRIM | StringTokenizer::TOK_IGNORE_EMPTY);
    settings.withoutTls12 = disabled.has("tlsv1_2");
    settings.withoutTls13 = disabled.has("tlsv1_3");
}

Settings commonSettings(const Reader& read, bool server) {
    Settings settings;
    settings.server = server;
    settings.origin = read.prefix();
    settings.keyFile = read.text("privateKeyFile");
    settings.certificateFile = read.text("certificateFile");
    if (settings.certificateFile.empty()) settings.certificateFile = settings.keyFile;
    settings.passphraseHandler =
        handler(read, "privateKeyPassphraseHandler.name", "KeyFileHandler");
    settings.passphrase = read.text("privateKeyPassphraseHandler.options.password");
    settings.authorities = read.text("caConfig");
    settings.revocationFile = read.text("crlFile");
    settings.verificationDepth = read.number("verificationDepth", 9);
    settings.certificateHandler =
        handler(read, "invalidCertificateHandler.name", "RejectCertificateHandler");
    settings.cipherList = read.text("cipherList", read.text("cypherList"));
    settings.preferServerCiphers = read.flag("preferServerCiphers", false);
    settings.dhParamsFile = read.text("dhParamsFile");
    settings.ecdhCurve = read.text("ecdhCurve");
    readProtocols(read, settings);
    return settings;
}

}  // namespace

Settings serverSettings() {
    const Reader read("openSSL.server.");
    Settings settings = commonSettings(read, true);
    if (settings.keyFile.empty()) read.refuse("privateKeyFile", "is not set");
    settings.systemAuthorities = read.flag("loadDefaultCAFile", true);
    settings.verification = verificationMode(read, "relaxed");
    settings.verifyClientName = read.flag("extendedVerification", false);
    settings.cacheSessions = read.flag("cacheSessions", false);
    settings.sessionIdContext = read.text("sessionIdContext", "${application.name}");
    settings.sessionCacheSize = read.optionalNumber("sessionCacheSize");
    settings.sessionTimeout = read.optionalNumber("sessionTimeout");
    return settings;
}

Settings clientSettings() {
    const Reader read("openSSL.client.");
    Settings settings = commonSettings(read, false);
    if (settings.keyFile.empty()) settings.keyFile = settings.certificateFile;
    settings.systemAuthorities = read.flag("loadDefaultCAFile", settings.authorities.empty());
    settings.verification = verificationMode(read, "strict");
    settings.checkName = read.flag("extendedVerification", true);
    return settings;
}

Settings mqttSettings(const MqttSecurity& security) {
    Settings settings;
    settings.origin = "mqtt ";
    settings.certificateFile = security.certificate;
    settings.keyFile = security.key.empty() ? security.certificate : security.key;
    settings.passphraseHandler = "KeyFileHandler";
    settings.passphrase = security.passphrase;
    settings.authorities = security.authorities;
    settings.systemAuthorities = security.authorities.empty();
    settings.checkName = security.checkServerName;
    settings.certificateHandler = "RejectCertificateHandler";
    return settings;
}

void warnOfUnsafe(const Settings& settings) {
    const auto warn = [&settings](const std::string& key, const std::string& what) {
        log.warning(settings.origin + key + ": " + what);
    };
    if (settings.verification == Context::VERIFY_NONE) {
        if (!settings.server)
            warn("verificationMode", "\"none\" takes any server for the right one");
    } else if (settings.server && settings.verification != Context::VERIFY_STRICT) {
        warn("verificationMode", "\"relaxed\" lets clients in that show no certificate");
    }
    if (!settings.server && !settings.checkName) {
        warn("extendedVerification", "\"false\" takes a server of any name");
    }
    if (settings.certificateHandler == kShippedCertificateHandler) {
        warn("invalidCertificateHandler.name",
             "\"AcceptCertificateHandler\" takes every certificate");
    }
    if (settings.cipherList == kShippedCipherList) {
        warn("cipherList", "the default of earlier years allows outdated ciphers too");
    }
}

}  // namespace kel::tls
