#include "ConnectOptions.h"

namespace kel {

namespace {

// The library's own limit is set out of reach: at it, a publisher of any QoS sleeps 100 ms at a
// time inside the library.
constexpr int kOutOfReach = 65000;

}  // namespace

MQTTClient_connectOptions libraryOptions(const ConnectOptions& options) {
    MQTTClient_connectOptions form = MQTTClient_connectOptions_initializer;
    form.keepAliveInterval = static_cast<int>(options.keepAlive.count());
    form.cleansession = 1;
    form.reliable = 0;
    form.username = options.username.c_str();
    form.password = options.password.c_str();
    form.connectTimeout = static_cast<int>(options.timeout.count());
    form.retryInterval = static_cast<int>(options.retryInterval.count());
    form.maxInflightMessages = kOutOfReach;
    return form;
}

std::string connectFailureInWords(int rc) {
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
