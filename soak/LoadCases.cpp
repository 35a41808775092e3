// Load: full counts, after which nothing is lost or left behind.

#include <Poco/Net/ServerSocket.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <random>
#include <thread>

#include "Broker.h"
#include "LogLines.h"
#include "RawHttp.h"
#include "ScriptedBroker.h"
#include "Traffic.h"
#include "common/Logger.h"
#include "common/MqttClient++.h"
#include "common/ThreadPool.h"
#include "common/WebApiBasic.h"

namespace soak {

namespace {

using kel::MqttClient;

constexpr int kPoolThreads = 32;
constexpr int kMqttThreads = 8;  // receive, dispatching and background threads
constexpr std::chrono::seconds kPatience{120};
constexpr auto kAlways = [](auto&&...) { return true; };

long scaled(long full, double scale) {
    return std::max(10L, static_cast<long>(static_cast<double>(full) * scale));
}

// Runs `work(thread)` on so many threads, and waits for them.
void onThreads(int count, const std::function<void(int)>& work) {
    std::vector<std::jthread> threads;
    threads.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) threads.emplace_back(work, i);
}

std::shared_ptr<MqttClient> connected(const std::string& address, const std::string& id) {
    auto client = MqttClient::createInstance(address, id, "", "");
    client->Connect(kAlways, kAlways);
    const auto ready = [&] { return client->PublishMessage("{}", "ready", 0, 0, 0); };
    if (!await(ready, kPatience)) throw std::runtime_error("not connected: " + id);
    return client;
}

// From one client to another, every QoS in turn; each message is ticked off as it comes.
Result messages(double scale) {
    const long total = scaled(1'000'000, scale);
    Broker broker;
    const auto sender = connected(broker.address(), "sender");
    const auto receiver = connected(broker.address(), "receiver");
    std::vector<std::atomic<char>> seen(static_cast<std::size_t>(total) + 1);  // the last: a probe
    const auto countOf = [&](auto&& is) { return std::count_if(seen.begin(), seen.end() - 1, is); };
    const auto publish = [&](long number) {
        const std::string payload = R"({"n":)" + std::to_string(number) + "}";
        return sender->PublishMessage(payload, "load", static_cast<int>(number % 3), 0, 0);
    };
    receiver->Subscribe([&](const Poco::JSON::Object& message,
                            const std::string&) { ++seen[message.getValue<std::size_t>("n")]; },
                        "load", 2);
    await([&] { return publish(total) && seen.back() > 0; });
    Watch watch(total);
    for (long i = 0; i < total; watch.at(++i)) {
        const auto earlier = static_cast<std::size_t>(std::max(0L, i - 4000));
        if (i % 1000 == 0 && earlier > 0) await([&] { return seen[earlier] > 0; });
        publish(i);
    }
    await([&] { return countOf([](auto& n) { return n == 0; }) == 0; });
    const auto lost = countOf([](auto& n) { return n == 0; });
    const auto doubled = countOf([](auto& n) { return n > 1; });
    return watch.end(lost + doubled == 0, "messages",
                     std::to_string(lost) + " lost, " + std::to_string(doubled) + " doubled",
                     kPoolThreads);
}

Result tasks(double scale) {
    const long total = scaled(1'000'000, scale);
    Watch watch(total);
    std::atomic<long> done{0};
    kel::ThreadPool pool;
    for (long i = 0; i < total; ++i) {
        while (!pool.tryStart([&] { ++done; }, std::chrono::milliseconds(100))) continue;
        watch.at(i + 1);
    }
    pool.stop();
    return watch.end(done == total, "tasks", std::to_string(total - done) + " lost");
}

// A connection for every hundred requests. Throws where a reply is not the right one.
void request(Poco::UInt16 port, long count) {
    std::optional<RawClient> peer;
    for (long i = 0; i < count; ++i) {
        if (i % 100 == 0) peer.emplace(port);
        const std::string number = std::to_string(i);
        const std::string reply = peer->send(::request("GET /n?n=" + number)).read();
        if (reply.find("{\"n\":\"" + number + "\"}") == reply.npos) throw std::runtime_error(reply);
    }
}

Result requests(double scale) {
    constexpr int kConnections = 64;
    constexpr long kBlock = 50;
    const long each = scaled(200'000, scale) / kConnections / kBlock * kBlock;
    const long total = each * kConnections;
    const auto api = kel::WebApiBasic::instance();
    api->apiRegist("/n", [](auto&, auto&, const auto& params, auto& result) {
        result.set("n", params.at("n"));
    });
    const Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    Watch watch(total);
    std::atomic<long> answered{0};
    std::atomic<int> failed{0};
    api->start(socket);
    onThreads(kConnections, [&](int) {
        try {
            for (long i = 0; i < each; i += kBlock) {
                request(socket.address().port(), kBlock);
                watch.at(answered += kBlock);
            }
        } catch (const std::exception&) {
            ++failed;
        }
    });
    api->stop();
    return watch.end(answered == total, "requests over 64 connections",
                     std::to_string(failed) + " connections failed", kPoolThreads);
}

Result logLines(double scale) {
    constexpr int kThreads = 8, kSetups = 50;
    const long each = scaled(10'000'000, scale) / kThreads, block = std::max(1L, each / 1000);
    silenceConsole();
    kel::loadLogging();
    Watch watch(each / block * block * kThreads);
    LogLines lines(kThreads);
    std::atomic<long> blocks{0};
    std::jthread writers([&] {
        onThreads(kThreads, [&](int thread) {
            for (long i = 0; i < each / block; ++i, ++blocks)
                lines.log(static_cast<std::size_t>(thread), block);
        });
    });
    for (int i = 1; i <= kSetups; ++i) {
        await([&] { return blocks * kSetups >= each / block * kThreads * i; }, kPatience);
        watch.at(blocks * block);
        kel::loadLogging();
    }
    writers.join();
    kel::deleteLogger();
    const bool right = lines.allFound();
    return watch.end(right, "lines from 8 threads across 50 set-ups", lines.missing());
}

Result clients(double scale) {
    constexpr int kAtATime = 100;  // each is a background thread, which ends a minute later
    const long total = scaled(10'000, scale);
    Broker broker;
    connected(broker.address(), "first");  // what the first one starts stays
    std::atomic<long> done{0}, next{0}, failed{0};
    Watch watch(total);
    onThreads(kAtATime, [&](int) {
        for (long i = next++; i < total; i = next++) {
            try {
                connected(broker.address(), "client" + std::to_string(i))->Disconnect();
            } catch (const std::exception&) {
                ++failed;
            }
            if (++done == total / 10) watch.at(done);
        }
    });
    return watch.end(failed == 0, "clients made, connected and released",
                     std::to_string(failed) + " failed", kAtATime + kMqttThreads);
}

// Whether a client whose broker ends `ends` sessions at random moments, under traffic, always comes
// back, and nothing is confirmed that has not come.
bool survives(Traffic& traffic, ScriptedBroker& broker, long ends, std::mt19937 random,
              const std::function<void()>& ended) {
    for (long i = 0; i < ends; ++i) {
        int more = 5 + static_cast<int>(random() % 200);
        const auto sent = [&] {
            while (more > 0 && traffic.publish()) --more;
            return more == 0;
        };
        if (!await(sent, kPatience)) return false;
        broker.drop();
        ended();
    }
    return traffic.flows() && traffic.confirmed <= broker.messages();
}

// Many clients at once, since each waits for seconds before it connects again.
Result restarts(double scale) {
    constexpr int kPairs = 40;
    Broker broker;
    connected(broker.address(), "first");  // what the first one starts stays
    const long each = std::max(2L, scaled(2000, scale) / kPairs);
    Watch watch(each * kPairs);
    std::atomic<long> ends{0}, confirmed{0}, wrong{0};
    onThreads(kPairs, [&](int pair) {
        ScriptedBroker own(ScriptedBroker::Manner::kAcknowledges);
        Traffic traffic(own.address());
        const std::mt19937 random(static_cast<unsigned>(pair));
        if (!survives(traffic, own, each, random, [&] { watch.at(++ends); })) ++wrong;
        confirmed += traffic.confirmed;
    });
    return watch.end(wrong == 0, "sessions ended under traffic",
                     std::to_string(wrong) + " of 40 clients stayed away or lost what was " +
                         "confirmed; " + std::to_string(confirmed) + " messages confirmed",
                     kPairs + kMqttThreads);
}

}  // namespace

std::vector<Case> loadCases() {
    return {{"load", "messages", messages, 600}, {"load", "tasks", tasks},
            {"load", "requests", requests},      {"load", "log lines", logLines, 300},
            {"load", "clients", clients, 600},   {"load", "broker restarts", restarts, 300}};
}

}  // namespace soak
