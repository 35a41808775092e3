// What the broker connection is made of, each alone: the owner of the library's handle against a
// broker that acknowledges as a test says, the window, the turn, the dispatcher, their stop.

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>

#include <array>
#include <atomic>
#include <latch>
#include <thread>

#include "MqttFixture.h"
#include "ScriptedBroker.h"
#include "common/Library.h"
#include "common/internal/mqtt/ConnectTurn.h"
#include "common/internal/mqtt/Connection.h"
#include "common/internal/mqtt/Dispatcher.h"
#include "common/internal/mqtt/Gathering.h"
#include "common/internal/mqtt/Messaging.h"

using kel::Connection;
using kel::ConnectTurn;
using kel::Dispatcher;
using kel::InFlightWindow;

namespace {

constexpr int kPublish = 3;
constexpr auto kAtOnce = [] { return true; };

struct Told : kel::ConnectionEvents {
    void messageArrived(kel::Message, bool) override {}
    void messageDelivered(int token) override { delivered.add(std::to_string(token), ""); }
    void sessionLost(const std::string&) override { ++lost; }

    Inbox delivered;
    std::atomic<int> lost{0};
};

class ConnectionTest : public ::testing::Test {
protected:
    ConnectionTest() {
        kel::Messaging::instance();
        int rc = -1;
        _options.address = _broker.address();
        _options.clientId = "edge-1";
        _connection = Connection::create(_options, rc);
        EXPECT_EQ(0, rc);
        connect();
    }
    ~ConnectionTest() override { _connection->close(); }

    void connect() { ASSERT_EQ(0, _connection->connect(_options, _told)); }

    // One after the other; counts those that are accepted.
    std::jthread publishing(int messages, std::atomic<int>& accepted) {
        return std::jthread([this, messages, &accepted] {
            for (int i = 0; i < messages; ++i) {
                accepted += _connection->publish("{}", "a", 1, 0) == 0;
            }
        });
    }

    CapturedLog _log;
    ScriptedBroker _broker;
    kel::ConnectOptions _options;
    const std::shared_ptr<Told> _told = std::make_shared<Told>();
    std::shared_ptr<Connection> _connection;
};

struct BlockingItem : Dispatcher::Item {
    void handOut() override { handle(); }
    bool tryHandOut() override {
        tried = true;
        return false;
    }
    std::size_t bytes() const override { return size; }

    std::function<void()> handle = [] {};
    std::size_t size = 0;
    bool tried = false;
};

std::shared_ptr<BlockingItem> item(
    std::size_t size, std::function<void()> handle = [] {}) {
    auto made = std::make_shared<BlockingItem>();
    made->size = size;
    made->handle = std::move(handle);
    return made;
}

}  // namespace

TEST_F(ConnectionTest, AnAcknowledgementCountsOnceAndOnlyForWhatWasSent) {
    std::atomic<int> accepted{0};
    const std::jthread publisher = publishing(30, accepted);
    ASSERT_TRUE(await([&] { return _broker.count(kPublish) == 10; }));
    for (const int token : {999, 1, 1, 1, 65535, 1, 2}) _broker.acknowledge(token);
    ASSERT_TRUE(_told->delivered.await("", 2));
    EXPECT_TRUE(await([&] { return _broker.count(kPublish) == 12; }));
    for (int token = 3; token <= 30; ++token) {
        const auto next = static_cast<std::size_t>(token);
        ASSERT_TRUE(await([&] { return _broker.count(kPublish) >= next; }));
        EXPECT_LE(_broker.count(kPublish), next + 9);  // never more than ten in flight
        _broker.acknowledge(token);
        ASSERT_TRUE(_told->delivered.await("", next));
    }
    EXPECT_EQ(30u, _told->delivered.count(""));
    EXPECT_TRUE(await([&] { return accepted == 30; }));
}

TEST_F(ConnectionTest, WaitersOfALostSessionReturnAndKeepNoPlaceInTheNext) {
    std::atomic<int> accepted{0}, later{0};
    {
        std::vector<std::jthread> waiting;
        for (int i = 0; i < 16; ++i) waiting.push_back(publishing(1, accepted));
        ASSERT_TRUE(await([&] { return accepted == 10; }));
        EXPECT_EQ(0, _connection->publish("{}", "a", 0, 0)) << "QoS 0 needs no place";
        _broker.drop();  // without any acknowledgement
    }
    EXPECT_EQ(10, accepted);
    ASSERT_TRUE(await([&] { return _told->lost == 1; }));
    EXPECT_FALSE(_connection->isUp());
    EXPECT_NE(0, _connection->publish("{}", "a", 1, 0));
    connect();
    const std::jthread publisher = publishing(11, later);
    EXPECT_TRUE(await([&] { return _broker.count(kPublish, 2) == 10; }));
    _connection->close();
    EXPECT_EQ(0u, _told->delivered.count(""));
    EXPECT_EQ(1, _told->lost);
}

// What the library began by itself must not start it anew.
TEST(Stop, OvertakesAConnectThatTheBrokerHasNotAnswered) {
    CapturedLog log;
    Poco::Net::ServerSocket broker(Poco::Net::SocketAddress("127.0.0.1", 0));
    const auto client =
        kel::MqttClient::createInstance(broker.address().toString(), "edge", "", "");
    std::atomic<int> calls{0};
    client->Connect([&calls](int) { return ++calls > 0; }, {});
    client->Subscribe(kIgnore, "a", 1);
    Poco::Net::StreamSocket peer = broker.acceptConnection();
    char received[256];
    ASSERT_GT(peer.receiveBytes(received, sizeof received), 0);
    kel::Messaging& messaging = kel::Messaging::instance();
    const std::jthread stop([] { kel::stopLibrary(); });
    ASSERT_TRUE(await([&] { return messaging.stopped(); }));
    peer.sendBytes("\x20\x02\0\0", 4);
    ASSERT_EQ(2, peer.receiveBytes(received, sizeof received));
    EXPECT_EQ(std::string("\xe0\0", 2), std::string(received, 2)) << "not a DISCONNECT";
    EXPECT_EQ(0, calls);
}

TEST(InFlightWindow, APlaceBelongsToItsSession) {
    InFlightWindow window;
    EXPECT_FALSE(window.take());
    window.open();
    const auto earlier = window.take();
    ASSERT_TRUE(earlier);
    window.close();
    window.open();
    std::vector<InFlightWindow::Session> taken;
    while (const auto session = window.take(kAtOnce)) taken.push_back(*session);
    ASSERT_EQ(10u, taken.size());
    window.giveBack(*earlier);
    EXPECT_FALSE(window.take(kAtOnce));
    window.sent(*earlier, 7);  // sent late, so in this session
    window.giveBack(taken.front());
    EXPECT_FALSE(window.take(kAtOnce));
    EXPECT_TRUE(window.delivered(7));
    EXPECT_FALSE(window.delivered(7));
    EXPECT_TRUE(window.take(kAtOnce));
}

TEST(Gathering, LetsAFloodAloneGatherAndThatOnItsOwnConnectionOnly) {
    const Poco::Net::ServerSocket broker(Poco::Net::SocketAddress("127.0.0.1", 0));
    Poco::Net::StreamSocket other(broker.address());
    const auto others = kel::platform::tcpConnectionsTo(broker.address().port());
    ASSERT_EQ(1u, others.size());
    Poco::Net::StreamSocket own(broker.address());
    kel::Gathering gathering;
    gathering.begin(broker.address().port(), others);
    EXPECT_TRUE(own.getNoDelay());
    EXPECT_FALSE(other.getNoDelay());
    other.setNoDelay(true);
    for (int i = 0; i < 100; ++i) gathering.count();
    EXPECT_TRUE(own.getNoDelay()) << "a burst is no flood";
    const auto flooded = [&](const Poco::Net::StreamSocket& socket) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (socket.impl()->getNoDelay() && std::chrono::steady_clock::now() < deadline) {
            gathering.count();
        }
        return !socket.impl()->getNoDelay();
    };
    EXPECT_TRUE(flooded(own));
    EXPECT_TRUE(other.getNoDelay());
    gathering.end();
    EXPECT_TRUE(own.getNoDelay());
    const int descriptor = own.impl()->sockfd();
    own = Poco::Net::StreamSocket();
    Poco::Net::StreamSocket later(broker.address());
    ASSERT_EQ(descriptor, later.impl()->sockfd());
    later.setNoDelay(true);
    for (int i = 0; i < 1'000'000; ++i) gathering.count();
    EXPECT_TRUE(later.getNoDelay());
}

TEST(ConnectTurn, GoesToTheClientThatHasFailedLeast) {
    auto first = std::make_unique<ConnectTurn>(0, kAtOnce);
    ASSERT_TRUE(*first);
    EXPECT_FALSE(ConnectTurn(0, kAtOnce));
    std::mutex mutex;
    std::vector<unsigned> order;
    std::array<std::atomic<bool>, 8> waits{};
    std::vector<std::jthread> waiting;
    for (const unsigned rank : {7U, 0U, 3U}) {
        waiting.emplace_back([&, rank] {
            const ConnectTurn turn(rank, [&] {
                waits[rank] = true;
                return false;
            });
            const std::lock_guard<std::mutex> lock(mutex);
            order.push_back(rank);
        });
        ASSERT_TRUE(await([&] { return waits[rank].load(); }));
    }
    first.reset();
    waiting.clear();
    EXPECT_EQ((std::vector<unsigned>{0, 3, 7}), order);
}

TEST(Dispatcher, LeavesALargeMessageToItsOwnThread) {
    for (const std::size_t excess : {0, 1}) {
        Dispatcher dispatcher;
        const auto large = item(Dispatcher::kLargestAtOnce + excess, [] {});
        dispatcher.take(large);
        EXPECT_EQ(excess == 0, large->tried);
    }
}

TEST(Dispatcher, HoldsTheReceiverBackAtItsBoundButNotForAWaitThatNeedsIt) {
    // By number, and by bytes.
    for (const std::size_t size : {std::size_t{1}, std::size_t{1} << 20}) {
        const std::size_t bound = size == 1 ? Dispatcher::kMostMessages : 32;
        Dispatcher dispatcher;
        std::latch fill{1}, waitForBroker{1};
        std::atomic<bool> waits{false}, gaveUp{false};
        dispatcher.push(item(0, [&] {
            waitForBroker.wait();
            const Dispatcher::WaitsForBroker wait;
            waits = true;
            while (!wait.giveUp()()) std::this_thread::yield();
            gaveUp = true;
        }));
        std::jthread runner([&] { dispatcher.run([] {}); });
        std::atomic<std::size_t> taken{0}, handled{0};
        const std::size_t all = 2 * bound + 10;
        std::jthread receiver([&] {
            for (; taken < all; ++taken) dispatcher.take(item(size, [&] { ++handled; }));
        });
        ASSERT_TRUE(await([&] { return dispatcher.isFull(); }));
        EXPECT_LE(taken, bound + 1);
        EXPECT_FALSE(waits);
        waitForBroker.count_down();
        EXPECT_TRUE(await([&] { return handled == all; }));
        EXPECT_TRUE(gaveUp);
        EXPECT_EQ(2 * bound, dispatcher.highWater());
        EXPECT_EQ(2 * bound * size, dispatcher.bytesHighWater());
        dispatcher.stop();
    }
}
