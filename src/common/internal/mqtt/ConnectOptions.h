#pragma once

#include <MQTTClient.h>

#include <chrono>
#include <string>

#include "../../MqttOptions.h"
#include "../tls/Tls.h"

namespace kel {

/// What a client connects with. One structure for everything that a CONNECT carries or that the
/// transport below it needs, so that the policy of connecting need not know any of it.
struct ConnectOptions {
    std::string address;   // server URI
    std::string clientId;  // unique at the broker
    std::string username;  // sent also when empty
    std::string password;  // likewise
    MqttOptions further;
    std::chrono::seconds retryInterval{30};  // after which an unacknowledged message is sent again
};

/// `options` as they are. Throws Poco::InvalidArgumentException, naming the member, where the
/// library or a broker would not take them.
MqttOptions checked(MqttOptions options);

/// The library's form of options, which must outlive it.
class LibraryOptions {
public:
    explicit LibraryOptions(const ConnectOptions& options);
    LibraryOptions(const LibraryOptions&) = delete;
    LibraryOptions& operator=(const LibraryOptions&) = delete;

    MQTTClient_connectOptions* get() { return &_form; }

private:
    void addWill(const MqttWill& will);
    void addSecurity(const MqttOptions& options);

    MQTTClient_connectOptions _form = MQTTClient_connectOptions_initializer;
    MQTTClient_willOptions _will = MQTTClient_willOptions_initializer;
    MQTTClient_SSLOptions _security = MQTTClient_SSLOptions_initializer;
    std::string _authorities;  // file or folder
    std::string _protocols;    // as they stand on the wire
};

/// Why an attempt with `options` came to the library's code `rc`, for a line in the log. Where that
/// may be for TLS it makes another one to find out, which takes 10 s at the longest.
std::string connectFailureInWords(const ConnectOptions& options, int rc);

}  // namespace kel
