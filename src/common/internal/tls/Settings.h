#pragma once

#include <Poco/Net/Context.h>

#include <optional>
#include <string>

#include "Tls.h"

namespace kel::tls {

/// What a context is made of. References in paths and names are filled in already; an empty text
/// stands for "none".
struct Settings {
    bool server = false;
    std::string origin;  // prefix of the keys it was read from, for messages

    std::string keyFile;
    std::string certificateFile;  // with its chain
    std::string passphraseHandler;
    std::string passphrase;   // for KeyFileHandler; any other handler supplies its own
    std::string authorities;  // file or folder
    bool systemAuthorities = false;
    std::string revocationFile;

    Poco::Net::Context::VerificationMode verification = Poco::Net::Context::VERIFY_STRICT;
    int verificationDepth = 9;
    bool checkName = true;  // of the server, by a client
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

/// "openSSL.client.*", all of them optional. They differ from POCO's manager in two points: the
/// server's name is checked unless "extendedVerification" is false, and the system's authorities
/// are trusted beside those of "caConfig" only where "loadDefaultCAFile" says so. Errors as above.
Settings clientSettings();

/// The settings of an MQTT connection.
Settings mqttSettings(const MqttSecurity& security);

/// Logs a warning for each setting that is used and is not safe.
void warnOfUnsafe(const Settings& settings);

}  // namespace kel::tls
