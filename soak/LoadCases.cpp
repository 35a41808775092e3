// Load: full counts, after which nothing is lost or left behind.

#include <random>
#include <thread>

#include "Broker.h"
#include "RawHttp.h"
#include "ScriptedBroker.h"
#include "Soak.h"
#include "common/ThreadPool.h"
#include "common/WebApiBasic.h"

namespace {

constexpr int kPoolThreads = 32;
constexpr int kMqttThreads = 8;  // receive, dispatching and background threads
constexpr std::chrono::seconds kPatience{120};

// Runs `work(thread)` on so many threads, and waits for them.
void onThreads(int count, const std::function<void(int)>& work) {
    std::vector<std::jthread> threads;
    threads.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) threads.emplace_back(work, i);
}

std::shared_ptr<kel::MqttClient> connected(const std::string& address, const std::string& id) {
    auto client = connecting(address, id);
    const auto ready = [&] { return client->PublishMessage("{}", "ready", 0, 0, 0); };
    if (!await(ready, kPatience)) throw std::runtime_error("not connected: " + id);
    return client;
}

// Over one connection. Throws where a reply is not the right one.
void sendRequests(Poco::UInt16 port, long count) {
    RawClient peer(port);
    for (long i = 0; i < count; ++i) {
        const std::string number = std::to_string(i);
        const std::string reply = peer.send(request("GET /n?n=" + number)).read();
        if (reply.find("{\"n\":\"" + number + "\"}") == reply.npos) throw std::runtime_error(reply);
    }
}

// Whether a client whose broker ends `ends` sessions at random moments, under traffic, always comes
// back, and nothing is confirmed that has not come.
bool comesBack(Traffic& traffic, ScriptedBroker& broker, long ends, std::mt19937 random,
               const std::function<void()>& ended) {
    for (long i = 0; i < ends; ++i, ended()) {
        if (!traffic.publish(5 + static_cast<int>(random() % 200), kPatience)) return false;
        broker.drop();
    }
    return traffic.flows() && traffic.confirmed <= broker.messages();
}

}  // namespace

// From one client to another, every QoS in turn; each message is ticked off as it comes.
TEST(Load, Messages) {
    const long total = scaled(1'000'000);
    Broker broker;
    const auto sender = connected(broker.address(), "sender");
    const auto receiver = connected(broker.address(), "receiver");
    std::vector<std::atomic<char>> seen(static_cast<std::size_t>(total) + 1);  // the last: a probe
    const auto come = [&](int times) { return std::count(seen.begin(), seen.end() - 1, times); };
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
    EXPECT_TRUE(await([&] { return come(0) == 0; }));
    EXPECT_EQ(total, come(1));
    watch.end(kPoolThreads, "messages, ", come(0), " lost, ", total - come(0) - come(1),
              " doubled");
}

TEST(Load, Tasks) {
    const long total = scaled(1'000'000);
    Watch watch(total);
    std::atomic<long> done{0};
    kel::ThreadPool pool;
    for (long i = 0; i < total; ++i) {
        while (!pool.tryStart([&] { ++done; }, std::chrono::milliseconds(100))) continue;
        watch.at(i + 1);
    }
    pool.stop();
    EXPECT_EQ(total, done);
    watch.end(0, "tasks, ", total - done, " lost");
}

TEST(Load, Requests) {
    constexpr int kConnections = 64;
    constexpr long kBlock = 50;
    const long each = scaled(200'000) / kConnections / kBlock * kBlock;
    const auto api = kel::WebApiBasic::instance();
    api->apiRegist("/n", [](auto&, auto&, const auto& params, auto& result) {
        result.set("n", params.at("n"));
    });
    const Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    Watch watch(each * kConnections);
    std::atomic<long> answered{0};
    api->start(socket);
    const auto sendBlocks = [&] {
        for (long i = 0; i < each; i += kBlock) {
            sendRequests(socket.address().port(), kBlock);
            watch.at(answered += kBlock);
        }
    };
    onThreads(kConnections, [&](int) { EXPECT_NO_THROW(sendBlocks()); });
    api->stop();
    const long unanswered = each * kConnections - answered;
    EXPECT_EQ(0, unanswered);
    watch.end(kPoolThreads, "requests over 64 connections, ", unanswered, " not answered");
}

TEST(Load, LogLines) {
    constexpr int kThreads = 8, kSetups = 50;
    const long each = scaled(10'000'000) / kThreads, block = std::max(1L, each / 1000);
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
    lines.expectAllFound();
    watch.end(0, "lines from 8 threads across 50 set-ups");
}

TEST(Load, Clients) {
    constexpr int kAtATime = 100;  // each is a background thread, which ends a minute later
    const long total = scaled(10'000);
    Broker broker;
    std::atomic<long> done{0}, next{0};
    Watch watch(total);
    onThreads(kAtATime, [&](int) {
        for (long i = next++; i < total; i = next++) {
            EXPECT_NO_THROW(
                connected(broker.address(), "client" + std::to_string(i))->Disconnect());
            if (++done == total / 10) watch.at(done);
        }
    });
    watch.end(kAtATime + kMqttThreads, "clients made, connected and released");
}

// Many clients at once, since each waits for seconds before it connects again.
TEST(Load, BrokerRestarts) {
    constexpr int kPairs = 40;  // each makes a background thread connect and one close
    const long each = std::max(2L, scaled(2000) / kPairs);
    Watch watch(each * kPairs);
    std::atomic<long> ends{0}, confirmed{0};
    onThreads(kPairs, [&](int pair) {
        ScriptedBroker own(ScriptedBroker::Manner::kAcknowledges);
        Traffic traffic(own.address());
        const std::mt19937 random(static_cast<unsigned>(pair));
        EXPECT_TRUE(comesBack(traffic, own, each, random, [&] { watch.at(++ends); }))
            << "client " << pair << " stayed away or lost what was confirmed";
        confirmed += traffic.confirmed;
    });
    watch.end(2 * kPairs + kMqttThreads, "sessions ended under the traffic of 40 clients, ",
              confirmed, " messages confirmed");
}
