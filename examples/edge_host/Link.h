#pragma once

#include <common/MqttClient++.h>
#include <status_page/Metrics.h>
#include <status_page/Traffic.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Settings.h"

namespace edge {

/// One broker connection that comes back by itself, with its subscriptions and the count of what
/// was published and confirmed. Posts a LinkNotification whenever it comes or goes. Threads: any,
/// except onJson() and onRaw(), which come before open().
class Link : public std::enable_shared_from_this<Link> {
public:
    /// Makes no connection yet; takes a second.
    explicit Link(const Settings& settings);

    /// Registers a handler; the subscription is made with the first connection.
    void onJson(const std::string& topic, int qos, kel::MqttClient::JsonMessageHandler handler);
    void onRaw(const std::string& topic, int qos, kel::MqttClient::MessageHandler handler);

    /// Connects in the background and keeps at it until close().
    void open();

    /// Ends the connection and the attempts at one. Waits up to 2 s for unacknowledged messages.
    void close();

    /// Whether there is a connection, as far as known.
    bool isUp() const { return _up; }

    /// Waits while the broker does not acknowledge, until the connection goes.
    /// @return whether the library accepted the message; a refusal is in the log.
    bool publish(const std::string& payload, const std::string& topic, int qos);

    /// One line for the log.
    std::string summary() const;

    /// The same for the status page and for monitoring.
    Poco::JSON::Object::Ptr state() const;
    std::vector<status_page::Metric> metrics() const;

    /// The messages of the subscriptions and those that were published.
    const status_page::Traffic& traffic() const { return _traffic; }

private:
    bool connected(int code);
    bool lost(const std::string& cause);
    void subscribeAll();

    const std::string _address;  // without user and password: for the log and the page
    const std::shared_ptr<kel::MqttClient> _client;
    status_page::Traffic _traffic;
    std::vector<std::function<void()>> _subscriptions;  // complete before open()

    std::atomic<bool> _closing{false};
    std::atomic<bool> _up{false};
    std::atomic<bool> _subscribed{false};
    std::atomic<unsigned> _accepted[3]{};  // by QoS
    std::atomic<unsigned> _refused{0};
    std::atomic<unsigned> _confirmed{0};
    std::atomic<unsigned> _losses{0};
};

}  // namespace edge
