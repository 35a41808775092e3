// Loss of the broker and the way back, against a real broker that is killed, stopped and cut off.

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>
#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <list>
#include <sstream>
#include <thread>

#include "MqttFixture.h"

using kel::MqttClient;

namespace {

long threadCount() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

class MqttReconnectTest : public MqttFixture {
protected:
    // Publishes until a message arrives, which tells that the subscription is in force again.
    bool delivers(const std::string& topic) {
        const std::string payload = "{\"n\":" + std::to_string(_inbox.count("")) + "}";
        return await([&] {
            _broker.publish(topic, payload);
            return _inbox.count(topic + " " + payload) > 0;
        });
    }
};

// Publishes at QoS 1 without a pause and counts what becomes of it.
class Publisher {
public:
    explicit Publisher(std::shared_ptr<MqttClient> client) : _client(std::move(client)) {
        _client->SetDeliveryCompleteCallback([this](int) { ++confirmed; });
        _thread = std::jthread([this](const std::stop_token& stop) {
            const auto publish = [this] { return _client->PublishMessage("{}", "load", 1, 0, 0); };
            while (!stop.stop_requested()) accepted += await(publish);
        });
    }

    bool goesOn() const {
        return await([this, before = confirmed.load()] { return confirmed > before + 100; });
    }

    void stop() { _thread = {}; }

    std::atomic<long> accepted{0}, confirmed{0};

private:
    const std::shared_ptr<MqttClient> _client;
    std::jthread _thread;
};

// A host of the test's own in a network namespace, reached over a virtual cable.
struct RemoteHost {
    ~RemoteHost() { killBroker() && run("ip link del $n; ip netns del $n"); }
    bool plug() const { return run("ip -n $n link set eth0 up"); }
    bool unplug() const { return run("ip -n $n link set eth0 down"); }
    bool killBroker() const { return run("ip netns pids $n | xargs -r kill -KILL"); }
    bool startBroker() const {
        return run(
            "printf 'listener 18830 10.203.77.2\\nallow_anonymous true\\nuser root\\n' |"
            "ip netns exec $n mosquitto -d -c /dev/stdin");
    }

    // $n is the name of the namespace and of this end of the cable.
    static bool run(const std::string& script) {
        const std::string name = "kel" + std::to_string(::getpid());
        return ::system(("exec >/dev/null 2>&1; n=" + name + "; " + script).c_str()) == 0;
    }

    const bool works = run("ip netns add $n && ip link add $n type veth peer name eth0 netns $n &&"
                           "ip addr add 10.203.77.1/30 dev $n && ip link set $n up &&"
                           "ip -n $n addr add 10.203.77.2/30 dev eth0") &&
                       plug();
};

// Echo requests that this host has sent so far.
long echoRequests() {
    std::ifstream in("/proc/net/snmp");
    for (std::string names, values; std::getline(in, names) && std::getline(in, values);) {
        std::istringstream name(names), value(values);
        for (std::string n, v; name >> n && value >> v;) {
            if (n == "OutEchos") return std::stol(v);
        }
    }
    return -1;
}

}  // namespace

TEST_F(MqttReconnectTest, ComesBackAfterEachOfManyRestarts) {
    constexpr int kRestarts = 20;
    std::atomic<int> losses{0};
    const auto onLost = [&](const std::string& cause) { return ++losses, cause.empty(); };
    const ClientPtr receiver = connected("receiver", onLost);
    subscribe(receiver, _inbox.handler(), "site/a", 2);
    subscribe(receiver, _inbox.handler(), "site/b/#", 1);
    std::list<Publisher> publishers;
    for (const char* id : {"edge-1", "edge-2"}) publishers.emplace_back(connected(id, onLost));
    long threadsEarly = 0;
    std::size_t memoryEarly = 0;
    for (int round = 1; round <= kRestarts; ++round) {
        _broker.restart();
        ASSERT_TRUE(delivers("site/a") && delivers("site/b/c"));
        for (const Publisher& p : publishers) ASSERT_TRUE(p.goesOn());
        if (round != kRestarts / 3) continue;
        threadsEarly = threadCount();
        memoryEarly = ::mallinfo2().uordblks;
    }
    for (Publisher& p : publishers) {
        p.stop();
        // What is missing was in flight, ten messages at most, when a connection was lost.
        EXPECT_TRUE(await([&] { return p.accepted - p.confirmed <= 10L * kRestarts; }));
        EXPECT_GE(p.accepted, p.confirmed);
    }
    EXPECT_EQ(3 * kRestarts, losses);
    EXPECT_LE(threadCount(), threadsEarly + 8);  // the pools keep idle threads for a minute
    EXPECT_LT(::mallinfo2().uordblks, memoryEarly + (4 << 20));  // 0 under a sanitizer
}

TEST_F(MqttReconnectTest, WaitsForABrokerThatPausesAndLosesNothing) {
    Publisher publisher(connected("edge-1", kAlways));
    ASSERT_TRUE(publisher.goesOn());
    _broker.suspend();
    ASSERT_TRUE(await([&] { return publisher.accepted - publisher.confirmed == 10; }));  // the most
    _broker.resume();
    ASSERT_TRUE(publisher.goesOn());
    publisher.stop();
    EXPECT_TRUE(await([&] { return publisher.confirmed == publisher.accepted; }));
    EXPECT_EQ(0u, _log.count("connection lost"));
}

TEST_F(MqttReconnectTest, TheDecisionCallbackMayDoAnything) {
    ClientPtr client;
    std::promise<void> blocked, release, connectedAgain;
    const auto throws = [](const std::string& cause) -> bool {
        throw std::runtime_error("cannot decide" + cause);
    };
    const auto decide = [&](const std::string&) {
        blocked.set_value();
        release.get_future().wait();
        client->Subscribe(_inbox.handler(), "made/while/lost", 0);
        EXPECT_FALSE(client->PublishMessage("{}", "out", 1, 0, 0));
        client->Unsubscribe("none");
        client->Disconnect();
        const auto onResult = [&](int rc) {
            if (rc == 0) connectedAgain.set_value();
            return true;
        };
        client->Connect(onResult, throws);
        connectedAgain.get_future().wait();
        return true;  // there is a session by now, which is left as it is
    };
    const ClientPtr other = connected("edge-2", kAlways);
    subscribe(other, _inbox.handler(), "other");
    client = connected("edge-1", decide);
    _broker.restart();
    blocked.get_future().wait();
    ASSERT_TRUE(delivers("other"));  // is not held up by the blocked one
    release.set_value();
    ASSERT_TRUE(delivers("made/while/lost"));
    EXPECT_EQ(3u, _log.count("Success to create mqtt client"));

    _broker.restart();
    ASSERT_TRUE(_log.await("cannot decide"));
    ASSERT_TRUE(delivers("other"));
    EXPECT_FALSE(client->PublishMessage("{}", "now", 1, 0, 0));
    EXPECT_TRUE(_log.await("Failed to publish message for topic=now, mqtt is not connected"));
}

TEST_F(MqttReconnectTest, MayBeReleasedInEveryStateOfTheLoss) {
    for (const bool inTheCallback : {true, false}) {
        ClientPtr client;
        std::promise<void> made, decided;
        const auto decide = [&](const std::string&) {
            made.get_future().wait();
            if (inTheCallback) client.reset();
            decided.set_value();
            return true;
        };
        client = connected(inTheCallback ? "edge-1" : "edge-2", decide);
        const std::weak_ptr<MqttClient> weak = client;
        made.set_value();
        _broker.restart();
        decided.get_future().wait();
        client.reset();
        EXPECT_TRUE(await([&] { return weak.expired(); }));
    }
}

TEST_F(MqttReconnectTest, GoesOnWithABrokerThatClosesAtOnce) {
    const std::string accepted("\x20\x02\x00\x00", 4);
    const std::string unasked("\x30\x05\x00\x01\x61{}", 7);  // a message without a subscription
    // What it answers to CONNECT before it closes, and what the client says again and again.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "Failed to connect, return code"},
        {"garbage", "Failed to connect, return code"},
        {accepted, "connection lost"},
        {accepted + unasked + unasked, "connection lost"},
    };
    for (const auto& [answer, line] : cases) {
        Poco::Net::ServerSocket server(Poco::Net::SocketAddress("127.0.0.1", 0));
        const std::jthread broker([&server, answer = answer](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                if (!server.poll({0, 50000}, Poco::Net::Socket::SELECT_READ)) continue;
                Poco::Net::StreamSocket peer = server.acceptConnection();
                char buffer[256];
                if (peer.receiveBytes(buffer, sizeof buffer) <= 0) continue;
                peer.sendBytes(answer.data(), static_cast<int>(answer.size()));
            }
        });
        const std::size_t before = _log.count(line);
        _address = server.address().toString();
        const ClientPtr client = newClient("edge-1");
        client->Subscribe(kIgnore, "a", 0);
        client->Connect(kAlways, kAlways);
        EXPECT_TRUE(_log.await(line, before + 2)) << answer;
        EXPECT_TRUE(await([&] { return !client->PublishMessage("{}", "a", 1, 0, 0); }));
    }
}

TEST_F(MqttReconnectTest, WaitsUntilTheBrokersHostAnswersAgain) {
    const RemoteHost host;
    if (!host.works) GTEST_SKIP() << "a network namespace takes root and the command ip";
    ASSERT_TRUE(host.startBroker());
    _address = "tcp://10.203.77.2:18830";
    std::promise<void> unplugged;
    const std::shared_future<void> cut = unplugged.get_future();
    const auto decide = [cut](const std::string&) { return cut.wait(), true; };
    const ClientPtr client = connected("edge-1", decide);
    ClientPtr released = connected("edge-2", decide);
    ASSERT_TRUE(host.killBroker());
    ASSERT_TRUE(_log.await("connection lost", 2));
    ASSERT_TRUE(host.unplug());
    unplugged.set_value();

    const long before = echoRequests();
    ASSERT_TRUE(await([&] { return echoRequests() >= before + 4; }));
    EXPECT_EQ(0u, _log.count("ping succeed"));
    const std::weak_ptr<MqttClient> weak = released;
    released.reset();  // while it waits
    EXPECT_TRUE(await([&] { return weak.expired(); }));

    ASSERT_TRUE(host.plug() && host.startBroker());
    ASSERT_TRUE(_log.await("ping succeed, ip: " + _address));
    EXPECT_TRUE(await([&] { return client->PublishMessage("{}", "out", 1, 0, 0); }));
}
