#include "common/MqttClient++.h"

#include <stdlib.h>

#include <atomic>
#include <optional>
#include <thread>

#include "MqttFixture.h"
#include "common/internal/InFlightWindow.h"
#include "common/internal/Topics.h"

using kel::MqttClient;

namespace {

class MqttClientTest : public MqttFixture {};

// Occupies all threads that handlers run on, so that further ones run on the library's thread.
class FullPool {
public:
    FullPool(MqttClient& client, const Broker& broker) {
        client.Subscribe(
            [this](MQTTClient_message*, std::string) {
                ++_begun;
                _gate.wait();
                ++_ended;
            },
            "block/all", 0);
        // One by one: a message too many would block the library's thread instead.
        for (int occupied = 1; occupied <= kThreads; ++occupied) {
            broker.publish("block/all", "{}");
            EXPECT_TRUE(await([&] { return _begun == occupied; }));
        }
    }

    ~FullPool() {
        _release.set_value();
        EXPECT_TRUE(await([&] { return _ended == kThreads; }));
    }

private:
    static constexpr int kThreads = 32;
    std::atomic<int> _begun{0}, _ended{0};
    std::promise<void> _release;
    const std::shared_future<void> _gate{_release.get_future()};
};

}  // namespace

TEST_F(MqttClientTest, KeepsSubscriptionsForTheConnectAndHandsMessagesOn) {
    _broker.publish("dev/1/state", R"({"v":"kept"})", 1, true);
    const ClientPtr client = newClient("edge-1");
    std::promise<std::pair<int, int>> flags;
    client->Subscribe(
        [&](MQTTClient_message* message, std::string) {
            flags.set_value({message->qos, message->retained});
        },
        "dev/1/state", 2);
    client->Subscribe(
        [&](const Poco::JSON::Object& object, std::string topic) {
            _inbox.add(topic, object.getValue<std::string>("v"));
        },
        "/kelbus/json", 1);
    ASSERT_TRUE(_log.await("Failed to subscribe topic /kelbus/json, _mqtt_client is not conn"));
    ASSERT_NO_FATAL_FAILURE(connect(client));
    EXPECT_EQ(std::make_pair(0, 0), flags.get_future().get());

    ASSERT_TRUE(_log.await("Success to subscribe topic /kelbus/json, return code 0"));
    _broker.publish("/kelbus/json", R"({"v":"\u00e4 1"})", 1);
    ASSERT_TRUE(_inbox.await("/kelbus/json \xC3\xA4 1"));
    for (const char* line :
         {"mqtt rece msg: {\"v\":\"\\u00e4 1\"}, topic=/kelbus/json",
          "Begin handle msg, topic: /kelbus/json", "Begin handle msg async, topic: /kelbus/json",
          "End handle msg async, topic: /kelbus/json"}) {
        EXPECT_TRUE(_log.await(line));
    }
    EXPECT_EQ(0u, _log.count("topic: dev/1/state"));  // not a bus topic

    client->Disconnect();
    const Poco::Message line = _log.find("Success to disconnect, return code 0");
    EXPECT_EQ(Poco::Message::PRIO_ERROR, line.getPriority());
}

TEST_F(MqttClientTest, DropsAndMatchesAsPublished) {
    struct Case {
        std::string topic, payload;
        std::string handledBy;  // "" for nobody
    };
    const std::vector<Case> cases = {
        {"/dev/1/state", R"({"n":0})", "/dev/#"},
        {"/other/dev/1", R"({"n":1})", "/dev/#"},    // the stem counts anywhere
        {"/dev/exact", R"({"n":2})", "/dev/exact"},  // exact before wildcard
        {"site/7/temp", R"({"n":3})", "site/+/temp"},
        {"my/site", R"({"n":4})", "site/+/temp"},  // only the stem is compared
        {"none", R"({"n":5})", ""},
        {"/dev/heartBeat", R"({"n":6})", ""},
        {"/dev/1", R"({"n":7,"api":"x/pushTelemetry/y"})", ""},
        {"/dev/1", R"({"n":8,"api":["heartBeat"]})", ""},
        {"/dev/1", R"({"n":9,"type":"response"})", ""},
        {"/dev/1", R"({"n":10,"type":"Response"})", "/dev/#"},
        {"/dev/1", R"({"n":11,"type":["response"]})", "/dev/#"},
        {"/dev/1", R"({"n":12,"api":null})", ""},
        {"/dev/1", R"({"n":13,"type":null})", ""},
        {"/dev/1", R"({"n":14,"api":{"a":1},"type":7})", "/dev/#"},
    };
    const ClientPtr client = newClient("edge-1");
    ASSERT_NO_FATAL_FAILURE(connect(client));
    subscribe(
        client, [](MQTTClient_message*, std::string) {}, "#");
    std::vector<Inbox> inboxes(3);
    const std::vector<std::string> filters = {"/dev/#", "/dev/exact", "site/+/temp"};
    for (std::size_t i = 0; i < filters.size(); ++i) {
        subscribe(client, inboxes[i].handler(), filters[i]);
    }
    for (const Case& c : cases) _broker.publish(c.topic, c.payload);
    for (std::size_t i = 0; i < filters.size(); ++i) {
        std::size_t expected = 0;
        for (const Case& c : cases) {
            if (c.handledBy != filters[i]) continue;
            ++expected;
            EXPECT_TRUE(inboxes[i].await(c.topic + " " + c.payload)) << filters[i] << c.payload;
        }
        EXPECT_EQ(expected, inboxes[i].count("")) << filters[i];
    }
    EXPECT_EQ(2u, _log.count("Can not convert empty value."));
}

TEST_F(MqttClientTest, SurvivesWhatAPeerMaySend) {
    const std::vector<std::string> hostile = {
        R"({"api":null})",
        R"({"type":null})",
        "",
        "not json",
        "[1,2]",
        "42",
        "{",
        "\xff\xfe\x01",
        std::string(100000, '['),
        R"({"a":)" + std::string(100000, '{'),
    };
    const ClientPtr client = newClient("edge-1");
    ASSERT_NO_FATAL_FAILURE(connect(client));
    subscribe(client, _inbox.handler(), "/kelbus/in");
    subscribe(
        client, [](MQTTClient_message*, std::string) { throw 42; }, "/kelbus/throws");
    const ClientPtr peer = newClient("edge-2");
    ASSERT_NO_FATAL_FAILURE(connect(peer));
    for (const std::string& payload : hostile) {
        ASSERT_TRUE(peer->PublishMessage(payload, "/kelbus/in", 0, 0, 0));
    }
    peer->PublishMessage("{}", "/kelbus/throws", 0, 0, 0);
    const std::string huge = R"({"huge":")" + std::string(3000000, 'x') + "\"}";
    ASSERT_TRUE(peer->PublishMessage(huge, "/kelbus/in", 1, 0, 0));
    ASSERT_TRUE(_inbox.await(huge));
    EXPECT_EQ(1u, _inbox.count(""));
    EXPECT_EQ(hostile.size() - 2, _log.count("json msg is empty"));
    EXPECT_EQ(0u, _log.count("connection lost"));
}

TEST_F(MqttClientTest, PublishesAndReportsDeliveries) {
    const ClientPtr client = newClient("edge-1");
    EXPECT_FALSE(client->PublishMessage("{}", "early", 0, 0, 0));
    EXPECT_EQ(1u, _log.count("Failed to publish message for topic=early, mqtt is not connected"));
    std::atomic<int> deliveries{0};
    client->SetDeliveryCompleteCallback([&](int) {
        if (++deliveries == 1) throw std::runtime_error("from the host");
    });
    ASSERT_NO_FATAL_FAILURE(connect(client));
    subscribe(client, _inbox.handler(), "out");
    for (int qos : {0, 1, 2}) {
        EXPECT_TRUE(
            client->PublishMessage("{\"qos\":" + std::to_string(qos) + "}", "out", qos, 0, 77));
    }
    ASSERT_TRUE(_inbox.await("out", 3));
    EXPECT_TRUE(await([&] { return deliveries == 2; }));
    EXPECT_TRUE(_log.await("from the host"));

    // What no broker accepts is refused here, and the connection stays.
    const std::vector<std::pair<std::string, int>> refused = {
        {"out", 3}, {"out", -1}, {"", 0}, {"a/#", 0}, {"a/+/b", 1}, {std::string("a\0b", 3), 0}};
    for (const auto& [topic, qos] : refused) {
        EXPECT_FALSE(client->PublishMessage("{}", topic, qos, 0, 0)) << topic;
    }
    client->Subscribe([](MQTTClient_message*, std::string) {}, "a/#/b", 0);
    EXPECT_TRUE(_log.await("Failed to subscribe topic a/#/b, return code"));
    EXPECT_TRUE(client->PublishMessage("{}", "out", 1, 0, 0));
    ASSERT_TRUE(_inbox.await("out", 4));
    EXPECT_EQ(0u, _log.count("connection lost"));
}

// The library itself polls ten times a second when ten messages are unacknowledged.
TEST_F(MqttClientTest, PublishersWaitForAcknowledgementsNotForATimer) {
    constexpr int kThreads = 4, kMessages = 1500;
    const ClientPtr client = newClient("edge-1");
    std::atomic<int> deliveries{0};
    client->SetDeliveryCompleteCallback([&](int) { ++deliveries; });
    ASSERT_NO_FATAL_FAILURE(connect(client));
    std::vector<std::future<int>> publishers;
    for (int t = 0; t < kThreads; ++t) {
        publishers.push_back(std::async(std::launch::async, [&, t] {
            int accepted = 0;
            for (int i = 0; i < kMessages; ++i) {
                accepted += client->PublishMessage("{}", "fast", 1 + t % 2, 0, 0);
            }
            return accepted;
        }));
    }
    EXPECT_TRUE(await([&] { return deliveries == kThreads * kMessages; }));
    for (auto& publisher : publishers) EXPECT_EQ(kMessages, publisher.get());
}

TEST_F(MqttClientTest, AFullPoolRunsHandlersInlineAndBlocksNobody) {
    const ClientPtr client = newClient("edge-1");
    ASSERT_NO_FATAL_FAILURE(connect(client));
    const FullPool full(*client, _broker);

    std::promise<bool> published;
    client->Subscribe(
        [&](MQTTClient_message*, std::string) {
            client->Subscribe(_inbox.handler(), "inline/made", 0);
            client->Unsubscribe("inline/none");
            published.set_value(client->PublishMessage("{}", "out", 1, 0, 0));
        },
        "inline/now", 0);
    ASSERT_TRUE(_log.await("Success to subscribe topic inline/now"));
    _broker.publish("inline/now", "{}");
    EXPECT_FALSE(published.get_future().get());
    EXPECT_TRUE(_log.await("Failed to publish message for topic out, return code -4"));
    ASSERT_TRUE(_log.await("Success to subscribe topic inline/made"));
    _broker.publish("inline/made", "{}");
    EXPECT_TRUE(_inbox.await("inline/made"));

    const ClientPtr second = newClient("edge-2");
    ASSERT_NO_FATAL_FAILURE(connect(second));
    EXPECT_TRUE(second->PublishMessage("{}", "out", 1, 0, 0));
}

TEST_F(MqttClientTest, MayBeReleasedInTheMiddleOfTraffic) {
    const ClientPtr feeder = newClient("feeder");
    ASSERT_NO_FATAL_FAILURE(connect(feeder));
    std::atomic<bool> stop{false};
    std::atomic<int> credit{0};  // messages that may be under way, so that no backlog grows
    std::vector<std::thread> feeders;
    for (int t = 0; t < 2; ++t) {
        feeders.emplace_back([&] {
            while (!stop) {
                if (credit <= 0) {
                    std::this_thread::yield();
                } else if (feeder->PublishMessage(R"({"x":"01234"})", "flood", 0, 0, 0)) {
                    --credit;
                }
            }
        });
    }
    for (int round = 0; round < 4; ++round) {
        const std::string id = "edge-" + std::to_string(round);
        ClientPtr client = newClient(id);
        std::atomic<int> received{0};
        client->Subscribe(
            [&](MQTTClient_message*, std::string) {
                ++received;
                ++credit;
            },
            "flood", 0);
        ASSERT_NO_FATAL_FAILURE(connect(client));
        ASSERT_TRUE(_log.await("Success to subscribe topic flood", round + 1u));
        credit = 200;
        ASSERT_TRUE(await([&] { return received > 500; }));
        const std::weak_ptr<MqttClient> weak = client;
        for (int i = 0; i < 5; ++i) client->Subscribe(_inbox.handler(), "queued/" + id, 0);
        client.reset();
        ASSERT_TRUE(await([&] { return weak.expired(); }));
        // Tasks that are on the pool still count into `received`.
        ASSERT_TRUE(
            await([&, last = -1]() mutable { return std::exchange(last, received) == last; }));
    }
    stop = true;
    for (auto& thread : feeders) thread.join();
    EXPECT_TRUE(feeder->PublishMessage("{}", "out", 1, 0, 0));
}

// The last reference may go on the library's own thread: in a handler that runs inline, or in the
// delivery callback.
TEST_F(MqttClientTest, MayBeReleasedFromTheLibrarysThread) {
    const ClientPtr other = newClient("other");
    ASSERT_NO_FATAL_FAILURE(connect(other));
    {
        ClientPtr client = newClient("edge-1");
        const std::weak_ptr<MqttClient> weak = client;
        std::promise<void> released;
        client->SetDeliveryCompleteCallback([&](int) {
            client.reset();
            released.set_value();
        });
        ASSERT_NO_FATAL_FAILURE(connect(client));
        ASSERT_TRUE(ClientPtr(client)->PublishMessage("{}", "out", 1, 0, 0));
        released.get_future().wait();
        EXPECT_TRUE(await([&] { return weak.expired(); }));
    }
    {
        const FullPool full(*other, _broker);
        ClientPtr client = newClient("edge-2");
        const std::weak_ptr<MqttClient> weak = client;
        ASSERT_NO_FATAL_FAILURE(connect(client));
        std::promise<void> released;
        client->Subscribe(
            [&](MQTTClient_message*, std::string) {
                client.reset();
                released.set_value();
            },
            "last", 0);
        ASSERT_TRUE(_log.await("Success to subscribe topic last"));
        _broker.publish("last", "{}");
        released.get_future().wait();
        EXPECT_TRUE(await([&] { return weak.expired(); }));
    }
    EXPECT_TRUE(other->PublishMessage("{}", "out", 1, 0, 0));
}

TEST_F(MqttClientTest, DisconnectsAndConnectsAgainWithItsSubscriptions) {
    const ClientPtr client = newClient("edge-1");
    ASSERT_NO_FATAL_FAILURE(connect(client));
    subscribe(client, _inbox.handler(), "kept", 2);
    subscribe(client, _inbox.handler(), "dropped", 1);
    client->Disconnect();
    EXPECT_FALSE(client->PublishMessage("{}", "kept", 1, 0, 0));
    EXPECT_EQ(1u, _log.count("Failed to publish message for topic kept, return code -3"));
    client->Unsubscribe("dropped");
    EXPECT_EQ(1u, _log.count("mqtt is not connected!"));
    EXPECT_EQ(1u, _log.count("--Success to erase topic dropped from subscribe map"));

    // The second connect finds the first connection and ends it.
    for (int times = 2; times <= 3; ++times) {
        client->Connect([](int) -> bool { throw std::runtime_error("host callback"); }, {});
        ASSERT_TRUE(_log.await("Success to subscribe topic kept, return code 0",
                               static_cast<std::size_t>(times)));
        _broker.publish("kept", "{}", 2);
        ASSERT_TRUE(_inbox.await("kept", static_cast<std::size_t>(times - 1)));
    }
    EXPECT_EQ(1u, _log.count("Success to subscribe topic dropped"));
    client->Unsubscribe("never");
    EXPECT_EQ(1u, _log.count("Success to unsubscribe topic never, return code 0"));
    EXPECT_EQ(0u, _log.count("erase topic never"));
}

TEST_F(MqttClientTest, RetriesAsLongAsTheHostWants) {
    _broker.kill();
    const ClientPtr client = newClient("edge-1");
    std::vector<int> results;
    std::promise<void> done;
    const auto decide = [&](int rc) {
        results.push_back(rc);
        if (results.size() == 2) _broker.start();
        if (rc == 0) done.set_value();
        return true;
    };
    client->Connect(decide, {});
    done.get_future().wait();
    EXPECT_EQ((std::vector<int>{-1, -1, 0}), results);
    EXPECT_EQ(2u, _log.count("Failed to connect, return code -1"));

    Broker locked(Broker::Login::kPassword);
    for (const auto& [password, expected] :
         std::vector<std::pair<std::string, int>>{{"wrong", 5}, {"secret", 0}}) {
        const auto guest = MqttClient::createInstance(locked.address(), "edge-1", "edge", password);
        std::promise<int> result;
        guest->Connect([&](int rc) { return result.set_value(rc), false; }, {});
        EXPECT_EQ(expected, result.get_future().get());
    }
    EXPECT_EQ(1u, _log.count("Failed to connect, return code 5"));
}

TEST_F(MqttClientTest, AnAddressTheLibraryRefusesIsReportedByEveryOperation) {
    const auto client = MqttClient::createInstance("carrier://pigeon", "", "", "");
    client->Connect([&](int) { return ADD_FAILURE(), true; }, {});
    client->Disconnect();
    client->Unsubscribe("a");
    client->Subscribe([](MQTTClient_message*, std::string) {}, "a", 0);
    EXPECT_FALSE(client->PublishMessage("{}", "a", 0, 0, 0));
    EXPECT_EQ("", client->getstation());
    for (const char* line :
         {"Failed to create mqtt client, return code", "Failed to disconnect, _mqtt_client is null",
          "Failed to unsubscribe topic=a, mqtt client is null",
          "Failed to subscribe topic a, _mqtt_client is null",
          "Failed to publish message for topic=a, mqtt client is null", "_client_id is empty"}) {
        EXPECT_TRUE(_log.await(line));
    }
}

TEST(MqttClientDeathTest, ProcessEndsCleanlyInTheMiddleOfTraffic) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    // The child runs this test from its beginning and finds the parent's broker.
    std::optional<Broker> broker;
    if (!::getenv("KEL_TEST_BROKER")) {
        broker.emplace();
        ::setenv("KEL_TEST_BROKER", broker->address().c_str(), 1);
    }
    const auto endWhileReceiving = [] {
        // Leaked on purpose: its callbacks go on while the process ends.
        auto* client = new std::shared_ptr<MqttClient>(
            MqttClient::createInstance(::getenv("KEL_TEST_BROKER"), "edge-1", "", ""));
        static std::atomic<int> received{0};
        (*client)->Subscribe([](MQTTClient_message*, std::string) { ++received; }, "loop", 0);
        (*client)->Connect({}, [](std::string) { return true; });
        std::thread([client] {
            for (;;) (*client)->PublishMessage("{}", "loop", 1, 0, 0);
        }).detach();
        std::exit(await([] { return received > 200; }) ? 0 : 1);
    };
    EXPECT_EXIT(endWhileReceiving(), ::testing::ExitedWithCode(0), "");
}

TEST(InFlightWindow, EndsWaitsWithTheSessionAndCountsOnlyItsOwn) {
    kel::InFlightWindow window;
    EXPECT_FALSE(window.take());
    window.open();
    const auto first = window.take();
    for (int i = 1; i < kel::InFlightWindow::kPlaces; ++i) ASSERT_TRUE(window.take());
    auto waiting = std::async(std::launch::async, [&] { return window.take().has_value(); });
    window.close();
    EXPECT_FALSE(waiting.get());

    window.open();
    for (int i = 0; i < kel::InFlightWindow::kPlaces; ++i) ASSERT_TRUE(window.take());
    window.giveBack(*first);  // of the session before: frees nothing
    auto next = std::async(std::launch::async, [&] { return window.take().has_value(); });
    window.delivered();
    EXPECT_TRUE(next.get());
    auto blocked = std::async(std::launch::async, [&] { return window.take().has_value(); });
    window.close();
    EXPECT_FALSE(blocked.get());
}

TEST(Topics, KnowsWhatABrokerAccepts) {
    for (const char* filter : {"#", "+", "a", "/", "a/+/b", "a/#", "/kelbus/#", "+/+", "a//b"}) {
        EXPECT_TRUE(kel::topics::isValidFilter(filter)) << filter;
    }
    for (const char* filter : {"", "a#", "#/a", "a/#/b", "a+", "a/b+/c", "##"}) {
        EXPECT_FALSE(kel::topics::isValidFilter(filter)) << filter;
    }
    EXPECT_FALSE(kel::topics::filterCovers("/#", "/a"));
    EXPECT_FALSE(kel::topics::filterCovers("a", "a"));
    EXPECT_TRUE(kel::topics::filterCovers("a/+/c/#", "x/a/+/c"));
}
