#pragma once

#include <MQTTClient.h>

#include <chrono>
#include <string>

namespace kel {

/// What a client connects with. One structure for everything that a CONNECT carries or that the
/// transport below it needs, so that the policy of connecting need not know any of it.
struct ConnectOptions {
    std::string address;   // server URI
    std::string clientId;  // unique at the broker
    std::string username;  // sent also when empty
    std::string password;  // likewise
    std::chrono::seconds keepAlive{60};
    std::chrono::seconds timeout{30};        // of one attempt
    std::chrono::seconds retryInterval{30};  // after which an unacknowledged message is sent again
};

/// The library's form of `options`, which must outlive it.
MQTTClient_connectOptions libraryOptions(const ConnectOptions& options);

/// What the result of a connect attempt means, for a line in the log.
std::string connectFailureInWords(int rc);

}  // namespace kel
