#pragma once

#include <Poco/Net/Context.h>

#include <optional>
#include <string>

#include "Tls.h"

namespace kel::tls {

/// What a context is made of. Paths and names are expanded; empty ones stand for "none".
struct Settings {
    bool server = false;
    std::string origin;  // prefix of the keys it was read from, for messages

    std::string keyFile;
    std::string certificateFile;  // with its chain
    std::string passphrase;       // what a handler registered with POCO says comes before it
    std::string passphraseHandler;
    std::string authorities;  // file or folder
    bool systemAuthorities = false;
    std::string revocationFile;

    Poco::Net::Context::VerificationMode verification = Poco::Net::Context::VERIFY_STRICT;
    int verificationDepth = 9;
    bool checkName = true;  // of a server
    bool verifyClientName = false;
    std::string certificateHandler;

    std::string cipherList;
    bool tls13Only = false;
    bool withoutTls12 = false;
    bool withoutTls13 = false;
    bool preferServerCiphers = false;
    std::string dhParamsFile;
    std::string ecdhCurve;

    bool cacheSessions = false;
    std::string sessionIdContext;
    std::optional<int> sessionCacheSize;
    std::optional<int> sessionTimeout;  // seconds

    bool operator==(const Settings&) const = default;
};

/// "openSSL.server.*" of the configuration, as POCO's SSL manager reads them, and "crlFile".
/// @throws Poco::InvalidArgumentException  a value that cannot be used; the text names the key.
Settings serverSettings();

/// "openSSL.client.*", all of them optional. Unlike POCO's manager: the server's name is checked
/// unless "extendedVerification" is false, and the system's authorities are trusted beside those of
/// "caConfig" only where "loadDefaultCAFile" says so.
Settings clientSettings();

/// An MQTT connection's.
Settings mqttSettings(const MqttSecurity& security);

/// A warning for each setting that is used and is not safe.
void warnOfUnsafe(const Settings& settings);

}  // namespace kel::tls
