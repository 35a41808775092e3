#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace kel {

/// What the broker publishes for a client whose connection ends without a Disconnect().
struct MqttWill {
    std::string topic;      ///< without wildcards
    std::string payload;    ///< bytes, at most 65535
    int qos = 0;            ///< 0, 1 or 2
    bool retained = false;  ///< whether the broker keeps it for later subscribers
};

/// What a host may ask of an MqttClient beyond address and login. Each default is what a client
/// without options does.
struct MqttOptions {
    std::chrono::seconds keepAlive{60};       ///< 1 s to 65535 s
    std::chrono::seconds connectTimeout{30};  ///< of one attempt, handshake included; 1 s to 24 h
    std::optional<MqttWill> will;             ///< none unless set

    // With an address "ssl://" or "mqtts://". Files are PEM; they are read at each connect, so that
    // renewed ones are in use from the next connection on.

    /// Whose certificates are trusted: a file, or a folder as `openssl rehash` prepares it. Empty:
    /// the system's.
    std::string authorities;
    std::string certificate;           ///< the client's own, with those of authorities in between
    std::string privateKey;            ///< empty: in the file of the certificate
    std::string privateKeyPassphrase;  ///< empty: none
    /// Whether the broker's certificate must be for the host in the address. Not for an IPv6
    /// address, which the MQTT library cannot compare.
    bool checkServerName = true;
    /// Protocols that are offered to the broker (ALPN), each of 1 to 255 bytes. Empty: none.
    std::vector<std::string> applicationProtocols;
};

}  // namespace kel
