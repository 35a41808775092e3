#pragma once

#include <common/MqttClient++.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "Settings.h"

namespace edge {

/// One broker connection that comes back by itself, and logs each of its outages. Threads: any.
class Link : public std::enable_shared_from_this<Link> {
public:
    /// Makes no connection yet; takes a second.
    explicit Link(const Settings& settings);

    /// Connects in the background and keeps at it until close().
    /// @param onConnected  called after each connect. What it subscribes keeps its QoS; without
    ///                     it the library would restore the subscriptions at QoS 0.
    void open(std::function<void()> onConnected);

    /// Ends the connection and the attempts at one. Waits up to 2 s for unacknowledged messages.
    void close();

    /// Whether there is a connection, as far as known.
    bool isUp() const { return _up; }

    /// To publish and to subscribe.
    kel::MqttClient& client() const { return *_client; }

    /// For the status page: "address", "connected" and "losses".
    Poco::JSON::Object::Ptr state() const;

private:
    bool connected(int code);
    bool lost(const std::string& cause);

    const std::string _address;  // without user and password: for the log and the page
    const std::shared_ptr<kel::MqttClient> _client;
    std::function<void()> _onConnected;  // set by open()

    std::atomic<bool> _closing{false};
    std::atomic<bool> _up{false};
    std::atomic<unsigned> _losses{0};
    std::atomic<Poco::Int64> _lostAt{0};  // Poco::Clock's microseconds; 0: not lost
};

}  // namespace edge
