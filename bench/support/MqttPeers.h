#pragma once

// The MQTT clients that the benchmark compares, behind one interface. Each has a connection and a
// topic of its own; its destructor disconnects.

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Broker.h"

namespace bench {

class Peer {
public:
    using Handler = std::function<void(std::string_view payload)>;

    explicit Peer(const std::string& name) : topic("bench/" + name) {}
    virtual ~Peer() = default;
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    /// Publishes to `to`. At QoS 1 and 2 at most ten messages are on their way. Throws if refused.
    virtual void publish(const std::string& to, const std::string& payload, int qos) = 0;

    /// Has `handler` called for each message to this peer's topic; returns perhaps before the
    /// broker has answered.
    virtual void subscribe(const Handler& handler, int qos) = 0;

    const std::string topic;
    std::atomic<long> confirmed{0};  // messages published at QoS 1 or 2
};

using PeerPtr = std::unique_ptr<Peer>;

enum class Handing { kRaw, kJson };

/// Ours. With kJson its handler is one for JSON objects, and is told the text of their "n".
PeerPtr kelClient(const Broker& broker, const std::string& name, Handing handing = Handing::kRaw);

/// Bare Paho behind a window of ten that a condition variable guards. What arrives is parsed with
/// POCO and handed to a Poco::ThreadPool of 32 threads, or handled at once where that is full; with
/// kRaw it is handled as it came, on Paho's thread.
PeerPtr pahoWithWindow(const Broker& broker, const std::string& name,
                       Handing handing = Handing::kJson);

/// As above, with Nagle's algorithm off.
PeerPtr pahoSendingAtOnce(const Broker& broker, const std::string& name);

/// Bare Paho that waits for the confirmation of each message before the next.
PeerPtr pahoSynchronous(const Broker& broker, const std::string& name);

/// libmosquitto with its own thread. What arrives is handled on that thread.
PeerPtr mosquittoClient(const Broker& broker, const std::string& name);

/// Connects with `filters`, calls `handler` with the topic of each message, and is dropped by
/// disconnecting it.
using Connection = std::shared_ptr<void>;
using TopicHandler = std::function<void(const std::string& topic)>;

/// Prepares a client with `filters` and returns what connects it.
std::function<Connection()> kelConnect(const Broker& broker,
                                       const std::vector<std::string>& filters,
                                       const TopicHandler& handler);
std::function<Connection()> mosquittoConnect(const Broker& broker,
                                             const std::vector<std::string>& filters,
                                             const TopicHandler& handler);

}  // namespace bench
