#include "ConnectOptions.h"

#include <Poco/Exception.h>

#include <filesystem>
#include <system_error>

#include "../log/UnitLog.h"
#include "../net/ServerUri.h"
#include "../platform/Paths.h"
#include "Topics.h"

namespace kel {

namespace {

constexpr UnitLog log("src/common/MqttClient++");

// The library's own limit is set out of reach: at it, a publisher of any QoS sleeps 100 ms at a
// time inside the library.
constexpr int kOutOfReach = 65000;

constexpr std::size_t kMostBytes = 65535;
constexpr auto kLongest = std::chrono::hours(24);

// Those of TLS 1.2, which has to be said in this way: the library cannot be told a lowest version.
// The ones of TLS 1.3 stand apart and are always offered.
constexpr const char* kCiphers = "HIGH+TLSv1.2:!aNULL:!eNULL:!PSK:!SRP";

bool isSecure(const std::string& address) {
    return address.starts_with("ssl://") || address.starts_with("mqtts://") ||
           address.starts_with("wss://");
}

std::string tlsFailure(const ConnectOptions& options) {
    const MqttOptions& further = options.further;
    tls::MqttSecurity security;
    security.authorities = further.authorities;
    security.certificate = further.certificate;
    security.key = further.privateKey;
    security.passphrase = further.privateKeyPassphrase;
    security.checkServerName = further.checkServerName;
    std::string reason;
    logExceptions(log, [&] {
        reason = tls::explainFailure(security, hostOfServerUri(options.address),
                                     portOfServerUri(options.address));
    });
    return reason;
}

}  // namespace

MqttOptions checked(MqttOptions options) {
    const auto demand = [](bool met, const std::string& what) {
        if (!met) throw Poco::InvalidArgumentException("MqttOptions::" + what);
    };
    demand(options.keepAlive >= std::chrono::seconds(1) &&
               options.keepAlive <= std::chrono::seconds(65535),
           "keepAlive");
    demand(options.connectTimeout >= std::chrono::seconds(1) && options.connectTimeout <= kLongest,
           "connectTimeout");
    for (const std::string& name : options.applicationProtocols) {
        demand(!name.empty() && name.size() <= 255, "applicationProtocols");
    }
    if (!options.will) return options;
    demand(topics::isValidTopic(options.will->topic), "will: topic");
    demand(options.will->topic.size() <= kMostBytes, "will: topic");
    demand(options.will->payload.size() <= kMostBytes, "will: payload");
    demand(options.will->qos >= 0 && options.will->qos <= 2, "will: qos");
    return options;
}

LibraryOptions::LibraryOptions(const ConnectOptions& options) {
    _form.keepAliveInterval = static_cast<int>(options.further.keepAlive.count());
    _form.cleansession = 1;
    _form.reliable = 0;
    _form.username = options.username.c_str();
    _form.password = options.password.c_str();
    _form.connectTimeout = static_cast<int>(options.further.connectTimeout.count());
    _form.retryInterval = static_cast<int>(options.retryInterval.count());
    _form.maxInflightMessages = kOutOfReach;
    if (options.further.will) addWill(*options.further.will);
    if (isSecure(options.address)) addSecurity(options.further);
}

void LibraryOptions::addWill(const MqttWill& will) {
    _will.topicName = will.topic.c_str();
    _will.payload.len = static_cast<int>(will.payload.size());
    _will.payload.data = will.payload.empty() ? nullptr : will.payload.data();
    _will.qos = will.qos;
    _will.retained = will.retained ? 1 : 0;
    _form.will = &_will;
}

void LibraryOptions::addSecurity(const MqttOptions& options) {
    const auto orNone = [](const std::string& text) {
        return text.empty() ? nullptr : text.c_str();
    };
    _authorities = options.authorities;
    if (_authorities.empty()) {
        logExceptions(log, [this] { _authorities = tls::systemAuthoritiesFile(); });
    }
    std::error_code unreadable;  // the attempt then fails, and the reason names the path
    const bool folder =
        std::filesystem::is_directory(paths::forStandardLibrary(_authorities), unreadable);
    _security.trustStore = folder ? nullptr : orNone(_authorities);
    _security.CApath = folder ? _authorities.c_str() : nullptr;
    _security.keyStore = orNone(options.certificate);
    _security.privateKey = orNone(options.privateKey);
    // Also where it is empty: OpenSSL would ask for a missing one at the console.
    _security.privateKeyPassword = options.privateKeyPassphrase.c_str();
    _security.enabledCipherSuites = kCiphers;
    _security.enableServerCertAuth = 1;
    _security.verify = options.checkServerName ? 1 : 0;
    for (const std::string& name : options.applicationProtocols) {
        _protocols += static_cast<char>(static_cast<unsigned char>(name.size()));
        _protocols += name;
    }
    _security.protos = reinterpret_cast<const unsigned char*>(_protocols.data());
    _security.protos_len = static_cast<unsigned>(_protocols.size());
    _form.ssl = &_security;
}

std::string connectFailureInWords(const ConnectOptions& options, int rc) {
    const bool secure = isSecure(options.address);
    if (secure && !tls::available()) return "KelCommon was built without TLS";
    if (secure && rc == MQTTCLIENT_FAILURE) {
        std::string reason = tlsFailure(options);
        if (!reason.empty()) return reason;
    }
    switch (rc) {
        case 1:
            return "the broker does not accept this version of the protocol";
        case 2:
            return "the broker does not accept the client id";
        case 3:
            return "the broker is not available";
        case 4:
            return "the broker does not accept the form of user name or password";
        case 5:
            return "the broker does not accept the login";
        case MQTTCLIENT_FAILURE:
            return "no answer from a broker (refused, unreachable or none within the time-out)";
        case MQTTCLIENT_BAD_PROTOCOL:
            return "the scheme of the address is not known";
        default:
            break;
    }
    const char* text = MQTTClient_strerror(rc);
    return text ? text : "unknown reason";
}

}  // namespace kel
