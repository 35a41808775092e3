#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "Await.h"
#include "Broker.h"
#include "CapturedLog.h"
#include "common/MqttClient++.h"

inline constexpr auto kIgnore = [](MQTTClient_message*, const std::string&) {};
inline constexpr auto kAlways = [](auto&&...) { return true; };

/// What handlers have received, as "topic payload". The handlers share it: one that has been
/// handed to a thread may run after its client has gone.
class Inbox {
public:
    /// Adds what comes, with `mark` before the topic.
    kel::MqttClient::MessageHandler handler(const std::string& mark = "") const {
        return [inbox = *this, mark](MQTTClient_message* message, const std::string& topic) {
            inbox.add(mark + topic, std::string(static_cast<char*>(message->payload),
                                                static_cast<std::size_t>(message->payloadlen)));
        };
    }

    void add(const std::string& topic, const std::string& payload) const {
        const std::lock_guard<std::mutex> lock(_state->mutex);
        _state->entries.push_back(topic + " " + payload);
    }

    /// Waits for `wanted` entries that contain `text`; false after 20 s.
    bool await(const std::string& text, std::size_t wanted = 1) const {
        return ::await([&] { return count(text) >= wanted; });
    }

    std::size_t count(const std::string& text) const {
        const std::lock_guard<std::mutex> lock(_state->mutex);
        return static_cast<std::size_t>(std::count_if(
            _state->entries.begin(), _state->entries.end(),
            [&](const std::string& entry) { return entry.find(text) != std::string::npos; }));
    }

private:
    struct State {
        std::mutex mutex;
        std::vector<std::string> entries;
    };
    std::shared_ptr<State> _state = std::make_shared<State>();
};

/// A broker, the log, and clients of it. What waits ends the test if nothing comes.
class MqttFixture : public ::testing::Test {
protected:
    using ClientPtr = std::shared_ptr<kel::MqttClient>;

    ClientPtr newClient(const std::string& id) {
        return kel::MqttClient::createInstance(_address, id, "", "");
    }

    /// A client that is connected so far that it publishes.
    ClientPtr connected(const std::string& id, std::function<bool(std::string)> onLost = {}) {
        const ClientPtr client = newClient(id);
        client->Connect({}, std::move(onLost));
        if (!await([&] { return client->PublishMessage("{}", "probe", 0, 0, 0); })) {
            throw std::runtime_error("not connected: " + id);
        }
        return client;
    }

    /// Subscribes and waits for the broker's answer.
    void subscribe(const ClientPtr& client, kel::MqttClient::MessageHandler handler,
                   const std::string& topic, int qos = 0) {
        const std::string line = "Success to subscribe topic " + topic + ",";
        const std::size_t before = _log.count(line);
        client->Subscribe(std::move(handler), topic, qos);
        if (!_log.await(line, before + 1)) throw std::runtime_error("not subscribed: " + topic);
    }

    CapturedLog _log;
    Broker _broker;
    std::string _address = _broker.address();
    Inbox _inbox;
};
