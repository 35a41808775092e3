// Loss of the broker and the way back, against a real broker that is killed, stopped and cut off.

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "MqttFixture.h"
#include "Sandbox.h"

using kel::MqttClient;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kRestarts = 6;
constexpr bool kMemoryIsMeaningful = false;
#else
constexpr int kRestarts = 20;
constexpr bool kMemoryIsMeaningful = true;
#endif

constexpr auto kAlways = [](auto&&...) { return true; };

std::size_t threadCount() {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

// Resident memory in KiB.
long residentMemory() {
    std::ifstream in("/proc/self/statm");
    long total = 0, resident = 0;
    in >> total >> resident;
    return resident * 4;
}

class MqttReconnectTest : public MqttFixture {
protected:
    void restartBroker() {
        _broker.kill();
        _broker.start();
    }

    // Publishes until a message arrives, which tells that the subscription is in force again.
    void awaitDelivery(const std::string& topic, const std::string& marker) {
        ASSERT_TRUE(await([&] {
            _broker.publish(topic, "{\"m\":\"" + marker + "\"}");
            return _inbox.count(topic + " {\"m\":\"" + marker) > 0;
        }));
    }
};

// Publishes at QoS 1 without a pause and counts what becomes of it.
class Publisher {
public:
    explicit Publisher(std::shared_ptr<MqttClient> client) : _client(std::move(client)) {
        _client->SetDeliveryCompleteCallback([this](int) { ++confirmed; });
    }

    ~Publisher() { stop(); }

    void start() {
        _thread = std::thread([this] {
            while (!_stop) {
                if (_client->PublishMessage("{}", "load", 1, 0, 0)) {
                    ++accepted;
                } else {
                    std::this_thread::sleep_for(std::chrono::milliseconds(20));
                }
            }
        });
    }

    void stop() {
        _stop = true;
        if (_thread.joinable()) _thread.join();
    }

    std::atomic<long> accepted{0}, confirmed{0};

private:
    std::shared_ptr<MqttClient> _client;
    std::atomic<bool> _stop{false};
    std::thread _thread;
};

}  // namespace

TEST_F(MqttReconnectTest, ComesBackAfterEachOfManyRestarts) {
    std::atomic<int> losses{0};
    const auto onLost = [&](const std::string& cause) {
        EXPECT_EQ("", cause);
        ++losses;
        return true;
    };
    const ClientPtr receiver = newClient("receiver");
    ASSERT_NO_FATAL_FAILURE(connect(receiver, onLost));
    subscribe(receiver, _inbox.handler(), "site/a", 2);
    subscribe(receiver, _inbox.handler(), "site/b/#", 1);
    std::vector<std::unique_ptr<Publisher>> publishers;
    for (const char* id : {"publisher-1", "publisher-2"}) {
        const ClientPtr client = newClient(id);
        publishers.push_back(std::make_unique<Publisher>(client));
        ASSERT_NO_FATAL_FAILURE(connect(client, onLost));
        publishers.back()->start();
    }
    std::size_t threadsEarly = 0;
    long memoryEarly = 0;
    for (int round = 1; round <= kRestarts; ++round) {
        SCOPED_TRACE(round);
        restartBroker();
        std::vector<long> before;
        for (const auto& p : publishers) before.push_back(p->confirmed);
        ASSERT_NO_FATAL_FAILURE(awaitDelivery("site/a", std::to_string(round)));
        ASSERT_NO_FATAL_FAILURE(awaitDelivery("site/b/c", std::to_string(round)));
        for (std::size_t i = 0; i < publishers.size(); ++i) {
            ASSERT_TRUE(await([&] { return publishers[i]->confirmed > before[i] + 100; }));
        }
        if (round == kRestarts / 3) {
            threadsEarly = threadCount();
            memoryEarly = residentMemory();
        }
    }
    for (const auto& p : publishers) {
        p->stop();
        // What is missing was in flight, ten messages at most, when a connection was lost.
        EXPECT_TRUE(await([&] { return p->accepted - p->confirmed <= 10L * kRestarts; }))
            << p->accepted << " accepted, " << p->confirmed << " confirmed";
        EXPECT_GE(p->accepted, p->confirmed);
    }
    EXPECT_EQ(3 * kRestarts, losses);
    EXPECT_LE(threadCount(), threadsEarly + 8);  // the pools keep idle threads for a minute
    if (kMemoryIsMeaningful) {
        EXPECT_LT(residentMemory(), memoryEarly + 8192);
    }
}

TEST_F(MqttReconnectTest, WaitsForABrokerThatPausesAndLosesNothing) {
    const ClientPtr client = newClient("edge-1");
    Publisher publisher(client);
    ASSERT_NO_FATAL_FAILURE(connect(client, kAlways));
    publisher.start();
    ASSERT_TRUE(await([&] { return publisher.confirmed > 100; }));
    _broker.suspend();
    long accepted = -1;  // until the window is full
    ASSERT_TRUE(await([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return std::exchange(accepted, publisher.accepted) == publisher.accepted;
    }));
    _broker.resume();
    ASSERT_TRUE(await([&] { return publisher.confirmed > accepted + 100; }));
    publisher.stop();
    EXPECT_TRUE(await([&] { return publisher.confirmed == publisher.accepted; }));
    EXPECT_EQ(0u, _log.count("connection lost"));
}

TEST_F(MqttReconnectTest, TheDecisionCallbackMayDoAnything) {
    const ClientPtr client = newClient("edge-1");
    std::promise<void> blocked, release;
    const auto decide = [&](std::string) {
        blocked.set_value();
        release.get_future().wait();
        client->Subscribe(_inbox.handler(), "made/while/lost", 0);
        EXPECT_FALSE(client->PublishMessage("{}", "out", 1, 0, 0));
        client->Unsubscribe("none");
        client->Disconnect();
        client->Connect(kAlways, [&](std::string cause) -> bool {
            throw std::runtime_error("cannot decide" + cause);
        });
        return true;
    };
    const ClientPtr other = newClient("edge-2");
    ASSERT_NO_FATAL_FAILURE(connect(other, kAlways));
    subscribe(other, _inbox.handler(), "other");
    ASSERT_NO_FATAL_FAILURE(connect(client, decide));
    restartBroker();
    blocked.get_future().wait();
    ASSERT_NO_FATAL_FAILURE(awaitDelivery("other", "1"));  // is not held up by the blocked one
    release.set_value();
    ASSERT_NO_FATAL_FAILURE(awaitDelivery("made/while/lost", "2"));
    // Both connects of the first call have run their course before the next loss.
    ASSERT_TRUE(_log.await("Success to subscribe topic made/while/lost"));
    ASSERT_TRUE(_log.await("Success to create mqtt client", 4));
    ASSERT_NO_FATAL_FAILURE(awaitDelivery("made/while/lost", "3"));

    restartBroker();
    ASSERT_TRUE(_log.await("cannot decide"));
    ASSERT_NO_FATAL_FAILURE(awaitDelivery("other", "4"));
    EXPECT_FALSE(client->PublishMessage("{}", "out", 1, 0, 0));
    EXPECT_TRUE(_log.await("Failed to publish message for topic=out, mqtt is not connected"));
}

TEST_F(MqttReconnectTest, MayBeReleasedInEveryStateOfTheLoss) {
    const std::vector<std::string> states = {"in the decision callback", "after it", "no callback"};
    for (const std::string& state : states) {
        SCOPED_TRACE(state);
        ClientPtr client = newClient(state);
        const std::weak_ptr<MqttClient> weak = client;
        std::promise<void> decided;
        std::function<bool(std::string)> decide = [&](std::string) {
            if (state == states[0]) client.reset();
            decided.set_value();
            return true;
        };
        if (state == states[2]) decide = {};
        const std::size_t losses = _log.count("connection lost");
        ASSERT_NO_FATAL_FAILURE(connect(client, decide));
        restartBroker();
        ASSERT_TRUE(_log.await("connection lost", losses + 1));
        if (decide) decided.get_future().wait();
        client.reset();
        EXPECT_TRUE(await([&] { return weak.expired(); }));
    }
}

// A scripted broker: what it answers to CONNECT, then it closes.
TEST_F(MqttReconnectTest, GoesOnWithABrokerThatClosesAtOnce) {
    const std::string accepted("\x20\x02\x00\x00", 4);
    const std::string unasked(
        "\x30\x05\x00\x01"
        "a{}",
        7);  // a message without a subscription
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "Failed to connect, return code"},
        {"garbage", "Failed to connect, return code"},
        {accepted, "connection lost"},
        {accepted + unasked + unasked, "connection lost"},
    };
    for (const auto& [answer, line] : cases) {
        SCOPED_TRACE(line);
        Poco::Net::ServerSocket server(Poco::Net::SocketAddress("127.0.0.1", 0));
        std::atomic<bool> stop{false};
        std::thread broker([&, answer = answer] {
            while (!stop) {
                if (!server.poll(Poco::Timespan(0, 50000), Poco::Net::Socket::SELECT_READ))
                    continue;
                Poco::Net::StreamSocket peer = server.acceptConnection();
                char buffer[256];
                if (peer.receiveBytes(buffer, sizeof buffer) > 0 && !answer.empty()) {
                    peer.sendBytes(answer.data(), static_cast<int>(answer.size()));
                }
            }
        });
        const std::size_t before = _log.count(line);
        const auto client = MqttClient::createInstance(
            "127.0.0.1:" + std::to_string(server.address().port()), "edge-1", "", "");
        client->Subscribe([](MQTTClient_message*, std::string) {}, "a", 0);
        client->Connect(kAlways, kAlways);
        EXPECT_TRUE(_log.await(line, before + 2));  // it tries again
        EXPECT_TRUE(await([&] { return !client->PublishMessage("{}", "a", 1, 0, 0); }));
        stop = true;
        broker.join();
    }
}

namespace {

// A host of the test's own in a network namespace, reached over a virtual cable.
class RemoteHost {
public:
    RemoteHost() {
        _works =
            run("ip netns add " + _name) &&
            run("ip link add " + _cable + " type veth peer name " + _cable + "p netns " + _name) &&
            run("ip addr add 10.203.77.1/30 dev " + _cable) &&
            run("ip link set " + _cable + " up") &&
            run(inside("ip addr add 10.203.77.2/30 dev " + _cable + "p")) && plug();
    }

    ~RemoteHost() {
        killBroker();
        run("ip link del " + _cable);
        run("ip netns del " + _name);
    }

    bool works() const { return _works; }
    static std::string address() { return "tcp://10.203.77.2:18830"; }
    bool plug() { return run(inside("ip link set " + _cable + "p up")); }
    bool unplug() { return run(inside("ip link set " + _cable + "p down")); }

    bool startBroker() {
        std::ofstream(_config) << "listener 18830 10.203.77.2\nallow_anonymous true\nuser root\n";
        return run(inside("mosquitto -d -c " + _config));
    }

    bool killBroker() { return run("ip netns pids " + _name + " | xargs -r kill -KILL"); }

private:
    static bool run(const std::string& command) {
        return ::system((command + " >/dev/null 2>&1").c_str()) == 0;
    }

    std::string inside(const std::string& command) const {
        return "ip netns exec " + _name + " " + command;
    }

    const std::string _name = "kel" + std::to_string(::getpid());
    const std::string _cable = "k" + std::to_string(::getpid());
    const TempFolder _folder;
    const std::string _config = (_folder.path / "mosquitto.conf").string();
    bool _works = false;
};

// Echo requests that this host has sent so far.
long echoRequests() {
    std::ifstream in("/proc/net/snmp");
    std::string names, values;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("Icmp: ", 0) == 0) names = std::exchange(values, line);
    }
    std::istringstream name(names), value(values);
    for (std::string n, v; name >> n && value >> v;) {
        if (n == "OutEchos") return std::stol(v);
    }
    return -1;
}

}  // namespace

TEST(MqttReconnectNetworkTest, WaitsUntilTheBrokersHostAnswersAgain) {
    RemoteHost host;
    if (!host.works())
        GTEST_SKIP() << "no network namespace here (it takes root and the command ip)";
    ASSERT_TRUE(host.startBroker());
    CapturedLog log;
    std::promise<void> unplugged;
    const std::shared_future<void> cut = unplugged.get_future();
    const auto decide = [cut](const std::string&) { return cut.wait(), true; };
    auto client = MqttClient::createInstance(RemoteHost::address(), "edge-1", "", "");
    auto released = MqttClient::createInstance(RemoteHost::address(), "edge-2", "", "");
    for (const auto& c : {client, released}) {
        c->Subscribe([](MQTTClient_message*, std::string) {}, c->getstation(), 1);
        c->Connect(kAlways, decide);
        ASSERT_TRUE(log.await("Success to subscribe topic " + c->getstation()));
    }
    ASSERT_TRUE(host.killBroker());
    ASSERT_TRUE(log.await("connection lost", 2));
    ASSERT_TRUE(host.unplug());
    unplugged.set_value();

    const long before = echoRequests();
    ASSERT_TRUE(await([&] { return echoRequests() >= before + 4; }));
    EXPECT_EQ(0u, log.count("ping succeed"));
    const std::weak_ptr<MqttClient> weak = released;
    released.reset();  // while it waits
    EXPECT_TRUE(await([&] { return weak.expired(); }));

    ASSERT_TRUE(host.plug() && host.startBroker());
    ASSERT_TRUE(log.await("ping succeed, ip: " + RemoteHost::address()));
    ASSERT_TRUE(log.await("Success to subscribe topic edge-1", 2));
    EXPECT_TRUE(await([&] { return client->PublishMessage("{}", "out", 1, 0, 0); }));
    EXPECT_EQ(1u, log.count("Success to subscribe topic edge-2"));
}
