#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Await.h"
#include "Broker.h"
#include "CapturedLog.h"
#include "common/MqttClient++.h"

/// What handlers have received, as "topic payload". The handlers share it: one that has been
/// handed to a thread may run after its client has gone.
class Inbox {
public:
    kel::MqttClient::MessageHandler handler() {
        return [inbox = *this](MQTTClient_message* message, const std::string& topic) mutable {
            inbox.add(topic, std::string(static_cast<char*>(message->payload),
                                         static_cast<std::size_t>(message->payloadlen)));
        };
    }

    void add(const std::string& topic, const std::string& payload) {
        const std::lock_guard<std::mutex> lock(_state->mutex);
        _state->entries.push_back(topic + " " + payload);
        _state->changed.notify_all();
    }

    /// Waits for `count` entries that contain `text`; false after 20 s.
    bool await(const std::string& text, std::size_t count = 1) {
        std::unique_lock<std::mutex> lock(_state->mutex);
        return _state->changed.wait_for(lock, std::chrono::seconds(20),
                                        [&] { return _state->countOf(text) >= count; });
    }

    std::size_t count(const std::string& text) {
        const std::lock_guard<std::mutex> lock(_state->mutex);
        return _state->countOf(text);
    }

private:
    struct State {
        std::size_t countOf(const std::string& text) const {
            return static_cast<std::size_t>(std::count_if(
                entries.begin(), entries.end(),
                [&](const std::string& entry) { return entry.find(text) != std::string::npos; }));
        }

        std::mutex mutex;
        std::condition_variable changed;
        std::vector<std::string> entries;
    };

    std::shared_ptr<State> _state = std::make_shared<State>();
};

/// A broker, the log, and clients of it.
class MqttFixture : public ::testing::Test {
protected:
    using ClientPtr = std::shared_ptr<kel::MqttClient>;

    ClientPtr newClient(const std::string& id) {
        return kel::MqttClient::createInstance(_broker.address(), id, "", "");
    }

    /// Connects and waits until publishing works and every subscription made before is in force.
    void connect(const ClientPtr& client, std::function<bool(std::string)> onLost = {}) {
        const std::string probe = "probe/" + client->getstation();
        client->Subscribe([](MQTTClient_message*, std::string) {}, probe, 0);
        ASSERT_TRUE(_log.await("subscribe topic " + probe + ", _mqtt_client is not connected"));
        client->Connect({}, std::move(onLost));
        ASSERT_TRUE(_log.await("Success to subscribe topic " + probe));
    }

    /// Subscribes and waits for the broker's answer.
    void subscribe(const ClientPtr& client, kel::MqttClient::MessageHandler handler,
                   const std::string& topic, int qos = 0) {
        const std::string line = "Success to subscribe topic " + topic + ",";
        const std::size_t before = _log.count(line);
        client->Subscribe(std::move(handler), topic, qos);
        ASSERT_TRUE(_log.await(line, before + 1));
    }

    CapturedLog _log;
    Broker _broker;
    Inbox _inbox;
};
