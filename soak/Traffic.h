#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "Await.h"
#include "CapturedLog.h"
#include "Soak.h"
#include "common/MqttClient++.h"

namespace soak {

/// A client that publishes, and what has become of its messages.
struct Traffic {
    explicit Traffic(const std::string& address)
        : client(kel::MqttClient::createInstance(address, "traffic", "", "")) {
        const auto always = [](auto&&...) { return true; };
        client->SetDeliveryCompleteCallback([this](int) { ++confirmed; });
        client->Connect(always, always);
    }

    bool publish() {
        const bool taken = client->PublishMessage("{}", "t", 1, 0, 0);
        if (taken) ++accepted;
        return taken;
    }

    /// Publishes until so many are accepted, or the time has passed.
    void publishFor(std::chrono::seconds time, int count) {
        await([&] { return publish() && --count <= 0; }, time);
    }

    /// Whether a message is confirmed that is published from now on.
    bool flows() {
        const long before = confirmed;
        const auto again = [&] {
            publish();
            return confirmed > before;
        };
        return await(again, std::chrono::seconds(90));
    }

    std::atomic<long> confirmed{0};
    long accepted = 0;
    std::shared_ptr<kel::MqttClient> client;
};

/// The first line that tells of a failure, shortened.
inline std::string errorIn(const CapturedLog& log) {
    for (const char* text : {"Failed", "lost", "rror", "xception", "bad_alloc"}) {
        const std::string line = log.find(text).getText();
        if (!line.empty()) return "logged \"" + line.substr(0, 70) + "\"";
    }
    return "nothing logged as failed";
}

/// Traffic before and after a fault.
inline Result survives(Traffic& traffic, const std::function<void()>& fault) {
    const bool before = traffic.flows();
    const CapturedLog log;
    fault();
    const bool right = traffic.flows() && before;
    return {right, errorIn(log) + "; " + std::to_string(traffic.accepted) + " accepted, " +
                       std::to_string(traffic.confirmed) + " confirmed; " +
                       (right ? "went on" : "did NOT go on")};
}

}  // namespace soak
