// Messages per second that one client publishes and sees delivered, over loopback to a mosquitto
// of its own. A figure is printed only when every message has been confirmed.

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <iostream>
#include <string>

#include "Await.h"
#include "Broker.h"
#include "common/MqttClient++.h"

namespace {

constexpr int kMessages = 20000;

std::shared_ptr<kel::MqttClient> connectedClient(const Broker& broker) {
    const auto client = kel::MqttClient::createInstance(broker.address(), "bench", "", "");
    std::promise<int> result;
    client->Connect([&](int rc) { return result.set_value(rc), false; }, {});
    if (result.get_future().get() != 0) throw std::runtime_error("no connection");
    if (!await([&] { return client->PublishMessage("{}", "bench", 0, 0, 0); })) {
        throw std::runtime_error("no publishing");
    }
    return client;
}

// @return messages per second; throws if not all of them were delivered.
double measure(const Broker& broker, int qos) {
    std::atomic<int> delivered{0};
    const auto client = connectedClient(broker);
    client->SetDeliveryCompleteCallback([&](int) { ++delivered; });
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < kMessages; ++i) {
        if (!client->PublishMessage(R"({"value":42})", "bench", qos, 0, 0)) {
            throw std::runtime_error("a message was refused");
        }
    }
    if (!await([&] { return delivered == kMessages; })) {
        throw std::runtime_error("not all messages were delivered");
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    client->Disconnect();
    return kMessages / took.count();
}

}  // namespace

int main() {
    try {
        const Broker broker;
        for (int round = 0; round < 3; ++round) {
            for (const int qos : {1, 2}) {
                std::cout << "QoS " << qos << ": " << static_cast<long>(measure(broker, qos))
                          << " messages/s\n";
            }
        }
        return EXIT_SUCCESS;
    } catch (const std::exception& exc) {
        std::cerr << "bench: " << exc.what() << "\n";
        return EXIT_FAILURE;
    }
}
