#include "common/MqttClient++.h"

#include <stdlib.h>

#include <array>
#include <atomic>
#include <latch>
#include <map>
#include <thread>

#include "MqttFixture.h"
#include "ScriptedBroker.h"
#include "common/Library.h"
#include "common/internal/mqtt/Messaging.h"
#include "common/internal/mqtt/Topics.h"

using kel::MqttClient;

namespace {

class MqttClientTest : public MqttFixture {
protected:
    // Occupies all threads that handlers run on, so that further ones run on the dispatching one.
    void fillPool(const ClientPtr& client) {
        const auto occupy = [this](MQTTClient_message*, std::string) {
            ++_begun;
            _release.wait();
            ++_ended;
        };
        subscribe(client, occupy, "block/all");
        // One by one: a message too many would block the dispatching thread instead.
        for (int occupied = 1; occupied <= 32; ++occupied) {
            _broker.publish("block/all", "{}");
            ASSERT_TRUE(await([&] { return _begun == occupied; }));
        }
    }

    void TearDown() override {
        _release.count_down();
        EXPECT_TRUE(await([&] { return _ended == _begun; }));
    }

private:
    std::atomic<int> _begun{0}, _ended{0};
    std::latch _release{1};
};

}  // namespace

TEST_F(MqttClientTest, KeepsSubscriptionsForTheConnectAndHandsMessagesOn) {
    _broker.publish("dev/1/state", R"({"v":"kept"})", 1, true);
    const auto addFlags = [this](MQTTClient_message* message, std::string topic) {
        _inbox.add(topic, std::to_string(message->qos) + std::to_string(message->retained));
    };
    const auto addMember = [this](const Poco::JSON::Object& object, std::string topic) {
        _inbox.add(topic, object.getValue<std::string>("v"));
    };
    const ClientPtr client = newClient("edge-1");
    client->Subscribe(addFlags, "dev/1/state", 2);
    client->Subscribe(addMember, "/kelbus/json", 1);
    ASSERT_TRUE(_log.await("_mqtt_client is not connected", 2));
    client->Connect({}, {});
    ASSERT_TRUE(_inbox.await("dev/1/state 00"));
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
    EXPECT_EQ(Poco::Message::PRIO_ERROR,
              _log.find("Success to disconnect, return code 0").getPriority());
}

TEST_F(MqttClientTest, DropsAndMatchesAsPublished) {
    // Topic, payload, the filter whose handler gets it ("" for none).
    const std::vector<std::array<std::string, 3>> cases = {
        {"/dev/1/state", R"({"n":0})", "/dev/#"},
        {"/other/dev/1", R"({"n":1})", "/dev/#"},    // the stem counts anywhere
        {"/dev/exact", R"({"n":2})", "/dev/exact"},  // exact before wildcard
        {"site/7/temp", R"({"n":3})", "site/+/temp"},
        {"my/site", R"({"n":4})", "site/+/temp"},  // only the stem is compared
        {"none", R"({"n":5})", ""},                // an empty stem matches nothing
        {"/dev/heartBeat", R"({"n":6})", ""},
        {"/dev/1", R"({"n":7,"api":"x/pushTelemetry/y"})", ""},
        {"/dev/1", R"({"n":8,"api":["heartBeat"]})", ""},
        {"/dev/1", R"({"n":9,"type":"response"})", ""},
        {"/dev/1", R"({"n":10,"type":"Response"})", "/dev/#"},
        {"/dev/1", R"({"n":11,"api":null})", ""},
        {"/dev/1", R"({"n":12,"type":null})", ""},
        {"/dev/1", R"({"n":13,"api":{"a":1},"type":7})", "/dev/#"},
    };
    const ClientPtr client = connected("edge-1");
    subscribe(client, kIgnore, "#");
    for (const std::string filter : {"/#", "/dev/#", "/dev/exact", "site/+/temp"}) {
        subscribe(client, _inbox.handler(filter + " <- "), filter);
    }
    std::size_t handled = 0;
    for (const auto& [topic, payload, filter] : cases) {
        _broker.publish(topic, payload);
        if (filter.empty()) continue;
        ++handled;
        EXPECT_TRUE(_inbox.await(filter + " <- " + topic + " " + payload)) << topic << payload;
    }
    EXPECT_EQ(handled, _inbox.count(""));
    EXPECT_EQ(2u, _log.count("Can not convert empty value."));
}

TEST_F(MqttClientTest, SurvivesWhatAPeerMaySend) {
    std::string million = R"({"a":[0)";
    for (int i = 0; i < 1'000'000; ++i) million += ",0";
    const std::vector<std::string> hostile = {"",
                                              "not json",
                                              "[1,2]",
                                              "42",
                                              "{",
                                              "\xff\xfe\x01",
                                              std::string(100000, '['),
                                              million + "]}"};
    const std::string huge = R"({"huge":")" + std::string(3000000, 'x') + "\"}";
    const auto throws = [](MQTTClient_message*, std::string) { throw 42; };
    const ClientPtr client = connected("edge-1");
    subscribe(client, throws, "/kelbus/throws");
    subscribe(client, _inbox.handler(), "/kelbus/in");
    client->PublishMessage("{}", "/kelbus/throws", 0, 0, 0);
    for (const std::string& payload : hostile) {
        ASSERT_TRUE(client->PublishMessage(payload, "/kelbus/in", 0, 0, 0));
    }
    ASSERT_TRUE(client->PublishMessage(huge, "/kelbus/in", 1, 0, 0));
    ASSERT_TRUE(_inbox.await(huge));
    EXPECT_EQ(1u, _inbox.count(""));
    EXPECT_EQ(hostile.size(), _log.count("json msg is empty"));
    EXPECT_EQ(0u, _log.count("connection lost"));
}

TEST_F(MqttClientTest, PublishesAndReportsDeliveries) {
    const ClientPtr client = connected("edge-1");
    std::atomic<int> deliveries{0};
    client->SetDeliveryCompleteCallback([&](int) {
        EXPECT_FALSE(client->PublishMessage("{}", "out", 0, 0, 0));
        if (++deliveries == 1) throw std::runtime_error("from the host");
    });
    subscribe(client, _inbox.handler(), "out");
    for (int qos : {0, 1, 2}) EXPECT_TRUE(client->PublishMessage("{}", "out", qos, 0, 77));
    ASSERT_TRUE(_inbox.await("out", 3));
    EXPECT_TRUE(await([&] { return deliveries == 2; }));
    EXPECT_TRUE(_log.await("from the host"));

    // What no broker accepts is refused here, and the connection stays.
    const std::vector<std::pair<std::string, int>> refused = {
        {"out", 3}, {"out", -1}, {"", 0}, {"a/#", 0}, {"a/+/b", 1}, {std::string("a\0b", 3), 0}};
    for (const auto& [topic, qos] : refused) {
        EXPECT_FALSE(client->PublishMessage("{}", topic, qos, 0, 0)) << topic;
    }
    client->Subscribe(kIgnore, "a/#/b", 0);
    EXPECT_TRUE(_log.await("Failed to subscribe topic a/#/b, return code"));
    EXPECT_TRUE(client->PublishMessage("{}", "out", 1, 0, 0));
    ASSERT_TRUE(_inbox.await("out", 4));
    EXPECT_EQ(0u, _log.count("connection lost"));
}

TEST_F(MqttClientTest, PublishesAndWaitsForTheConfirmationItsDeadlineOrTheEndOfTheSession) {
    constexpr auto kLong = std::chrono::minutes(1);
    const ClientPtr client = connected("edge-1");
    std::atomic<int> refused{0};
    client->SetDeliveryCompleteCallback(
        [&](int) { refused += !client->PublishAndWait("{}", "out", 1, 0, kLong); });
    for (const int qos : {0, 1, 2}) EXPECT_TRUE(client->PublishAndWait("{}", "out", qos, 0, kLong));
    EXPECT_TRUE(await([&] { return refused == 2; }));
    EXPECT_FALSE(client->PublishAndWait("{}", "a/#", 1, 0, kLong));

    ScriptedBroker scripted;  // acknowledges only what the test says
    const ClientPtr lonely = MqttClient::createInstance(scripted.address(), "edge-2", "", "");
    lonely->Connect(kAlways, {});
    ASSERT_TRUE(await([&] { return lonely->PublishMessage("{}", "probe", 0, 0, 0); }));
    EXPECT_FALSE(lonely->PublishAndWait("{}", "out", 1, 0, std::chrono::milliseconds(1)));
    EXPECT_TRUE(_log.await("no confirmation in time for topic out"));
    const auto waiting = [&] { return lonely->PublishAndWait("{}", "out", 1, 0, kLong); };
    std::vector<std::future<bool>> outcomes;
    for (int i = 0; i < 9; ++i) outcomes.push_back(std::async(std::launch::async, waiting));
    ASSERT_TRUE(await([&] { return scripted.count(3) == 11; }));  // PUBLISH, the probe included
    EXPECT_FALSE(lonely->PublishAndWait("{}", "out", 1, 0, std::chrono::milliseconds(1)));  // full
    for (int token = 1; token <= 5; ++token) scripted.acknowledge(token);  // the first one's too
    const auto settled = [](std::future<bool>& outcome) {
        return outcome.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    };
    EXPECT_TRUE(
        await([&] { return std::count_if(outcomes.begin(), outcomes.end(), settled) == 4; }));
    scripted.drop();
    std::size_t confirmed = 0;
    for (auto& outcome : outcomes) confirmed += outcome.get();
    EXPECT_EQ(4u, confirmed);
    EXPECT_EQ(5u, _log.count("connection lost before the confirmation for topic out"));
}

// The library itself polls ten times a second when ten messages are unacknowledged.
TEST_F(MqttClientTest, PublishersWaitForAcknowledgementsNotForATimer) {
    constexpr int kMessages = 1500;
    const ClientPtr client = connected("edge-1");
    std::atomic<int> deliveries{0};
    client->SetDeliveryCompleteCallback([&](int) { ++deliveries; });
    const auto publish = [&](int qos) {
        for (int i = 0; i < kMessages; ++i) {
            EXPECT_TRUE(client->PublishMessage("{}", "fast", qos, 0, 0));
        }
    };
    std::vector<std::jthread> publishers;
    for (const int qos : {1, 1, 2, 2}) publishers.emplace_back(publish, qos);
    EXPECT_TRUE(await([&] { return deliveries == 4 * kMessages; }));
}

TEST_F(MqttClientTest, AFullPoolRunsHandlersInlineAndBlocksNobody) {
    const ClientPtr client = connected("edge-1");
    ASSERT_NO_FATAL_FAILURE(fillPool(client));
    std::promise<bool> published;
    const auto runInline = [&](MQTTClient_message*, std::string) {
        bool all = true;
        client->Subscribe(_inbox.handler(), "inline/made", 0);
        client->Unsubscribe("inline/none");
        for (int i = 0; i < 60; ++i) all &= client->PublishMessage("{}", "out", i % 3, 0, 0);
        all &= client->PublishAndWait("{}", "out", 1, 0, std::chrono::minutes(1));
        published.set_value(all);
    };
    subscribe(client, runInline, "inline/now");
    const auto before = kel::mqttStatistics();
    _broker.publish("inline/now", "{}");
    EXPECT_TRUE(published.get_future().get());
    EXPECT_TRUE(_log.await("Success to unsubscribe topic inline/none"));
    ASSERT_TRUE(_log.await("Success to subscribe topic inline/made"));
    _broker.publish("inline/made", "{}");
    EXPECT_TRUE(_inbox.await("inline/made"));
    const auto after = kel::mqttStatistics();
    EXPECT_EQ(2u, after.handledInline - before.handledInline);
    EXPECT_EQ(32u, after.handlers.used);
    EXPECT_EQ(before.refused, after.refused);
    EXPECT_TRUE(connected("edge-2")->PublishMessage("{}", "out", 1, 0, 0));
}

TEST_F(MqttClientTest, ClientsOfAMuteBrokerTakeNothingFromTheOthers) {
    const ScriptedBroker mute(ScriptedBroker::Manner::kMute);
    const ClientPtr client = connected("edge-1");
    std::vector<std::future<ClientPtr>> making;
    for (int i = 0; i < 34; ++i) {  // more than there are threads for handlers
        making.push_back(std::async(std::launch::async, [&, i] {
            auto made = MqttClient::createInstance(mute.address(), std::to_string(i), "", "");
            made->Connect(kAlways, kAlways);
            return made;
        }));
    }
    std::vector<ClientPtr> others;
    for (auto& made : making) others.push_back(made.get());
    const auto answer = [&](MQTTClient_message*, std::string) {
        if (client->PublishMessage("{}", "answer", 1, 0, 0)) _inbox.add("answered", "");
    };
    subscribe(client, answer, "ask");
    const auto before = kel::mqttStatistics();
    for (int i = 0; i < 20; ++i) client->PublishMessage("{}", "ask", 1, 0, 0);
    EXPECT_TRUE(_inbox.await("answered", 20));
    EXPECT_EQ(before.handledInline, kel::mqttStatistics().handledInline);
    client->Disconnect();
    EXPECT_EQ(1u, _log.count("Success to disconnect, return code 0"));
}

// What is restored goes out together, at QoS 0; what the connect callback makes stays as it is.
TEST_F(MqttClientTest, RestoresAtQos0InOnePacketAndLeavesTheCallbacksAlone) {
    ScriptedBroker broker;
    _address = broker.address();
    const ClientPtr client = newClient("edge-1");
    const std::map<std::string, int> made = {{"at/0", 0}, {"at/1", 1}, {"at/2", 2}, {"remade", 0}};
    for (const auto& [topic, qos] : made) client->Subscribe(kIgnore, topic, qos);
    ASSERT_TRUE(_log.await("_mqtt_client is not connected", made.size()));
    bool published = false;
    const auto connectedNow = [&](int rc) {
        published = rc == 0 && client->PublishMessage("{}", "first", 0, 0, 0);
        client->Subscribe(kIgnore, "remade", 2);
        return true;
    };
    client->Connect(connectedNow, {});
    for (const auto& [topic, qos] : made) {
        ASSERT_TRUE(_log.await("Success to subscribe topic " + topic + ", return code 0"));
    }
    EXPECT_TRUE(published);
    const auto packets = broker.received(8);
    ASSERT_EQ(2u, packets.size());
    EXPECT_EQ(std::string("\0\6remade\2", 9), packets[0].body.substr(2));
    EXPECT_EQ(2u + 3 * 7, packets[1].body.size());
    for (const std::string topic : {"at/0", "at/1", "at/2"}) {
        EXPECT_NE(std::string::npos, packets[1].body.find(topic + '\0')) << topic;
    }
    EXPECT_EQ(1u, _log.count("Success to subscribe topic remade"));
}

TEST_F(MqttClientTest, MayBeReleasedInTheMiddleOfTraffic) {
    static std::atomic<int> received{0};  // also by handlers whose client has gone
    std::atomic<int> sent{0};
    const ClientPtr feeder = connected("feeder");
    const auto feed = [&](const std::stop_token& stop) {
        for (; !stop.stop_requested(); std::this_thread::yield()) {
            if (sent > received + 200) continue;  // no backlog may grow
            if (feeder->PublishMessage(R"({"x":"01234"})", "flood", 0, 0, 0)) ++sent;
        }
    };
    const std::jthread feeders[] = {std::jthread(feed), std::jthread(feed)};
    for (const std::string id : {"edge-1", "edge-2", "edge-3", "edge-4"}) {
        ClientPtr client = connected(id);
        subscribe(
            client, [](MQTTClient_message*, std::string) { ++received; }, "flood");
        const int before = sent = received.load();
        ASSERT_TRUE(await([&] { return received > before + 500; }));
        const std::weak_ptr<MqttClient> weak = client;
        for (int i = 0; i < 5; ++i) client->Subscribe(_inbox.handler(), "queued/" + id, 0);
        client.reset();
        ASSERT_TRUE(await([&] { return weak.expired(); }));
    }
    EXPECT_TRUE(feeder->PublishMessage("{}", "out", 1, 0, 0));
}

// The last reference may go in the delivery callback or in a handler that runs inline.
TEST_F(MqttClientTest, MayBeReleasedFromTheLibrarysThread) {
    const ClientPtr other = connected("other");
    ASSERT_NO_FATAL_FAILURE(fillPool(other));
    for (const std::string place : {"callback", "handler"}) {
        ClientPtr client = connected(place);
        const std::weak_ptr<MqttClient> weak = client;
        std::promise<void> returned, released;
        const auto release = [&](auto&&...) {
            returned.get_future().wait();
            client.reset();
            released.set_value();
        };
        place == "handler" ? subscribe(client, release, "last")
                           : client->SetDeliveryCompleteCallback(release);
        ASSERT_TRUE(client->PublishMessage("{}", "last", 1, 0, 0));
        returned.set_value();
        released.get_future().wait();
        EXPECT_TRUE(await([&] { return weak.expired(); }));
    }
    EXPECT_TRUE(other->PublishMessage("{}", "out", 1, 0, 0));
}

TEST_F(MqttClientTest, DisconnectsAndConnectsAgainWithItsSubscriptions) {
    // Its owner may be of any kind.
    const auto client = std::make_unique<MqttClient>(_address, "edge-1", "", "");
    client->Connect({}, {});
    ASSERT_TRUE(await([&] { return client->PublishMessage("{}", "probe", 0, 0, 0); }));

    client->Subscribe(_inbox.handler(), "kept", 2);
    client->Subscribe(_inbox.handler(), "dropped", 1);
    ASSERT_TRUE(_log.await("Success to subscribe topic ", 2));
    client->Disconnect();
    EXPECT_FALSE(client->PublishMessage("{}", "kept", 1, 0, 0));
    EXPECT_EQ(1u, _log.count("Failed to publish message for topic kept, return code -3"));
    client->Unsubscribe("dropped");
    EXPECT_EQ(1u, _log.count("mqtt is not connected!"));
    EXPECT_EQ(1u, _log.count("--Success to erase topic dropped from subscribe map"));

    // The second connect finds the first connection and ends it; the others come after a stop.
    for (const std::size_t times : {1, 2, 3, 4}) {
        if (times > 2) {
            kel::stopLibrary();
            EXPECT_FALSE(client->PublishMessage("{}", "kept", 1, 0, 0));
        }
        client->Connect([](int) -> bool { throw std::runtime_error("host callback"); }, {});
        ASSERT_TRUE(_log.await("Success to subscribe topic kept, return code 0", times + 1));
        EXPECT_TRUE(client->PublishMessage("{}", "kept", 2, 0, 0));
        ASSERT_TRUE(_inbox.await("kept", times));
    }
    EXPECT_EQ(1u, _log.count("Success to subscribe topic dropped"));
    client->Unsubscribe("never");
    EXPECT_EQ(1u, _log.count("Success to unsubscribe topic never, return code 0"));
    EXPECT_EQ(0u, _log.count("erase topic never"));
}

TEST_F(MqttClientTest, RetriesAsLongAsTheHostWants) {
    _broker.kill();
    const ClientPtr client = newClient("edge-1");
    int failures = 0;
    const auto decide = [&](int rc) {
        if (rc != 0 && ++failures == 2) _broker.start();
        return true;
    };
    client->Connect(decide, {});
    EXPECT_TRUE(await([&] { return client->PublishMessage("{}", "out", 0, 0, 0); }));
    EXPECT_EQ(2u, _log.count("Failed to connect, return code -1"));

    // What is brought up while a further attempt waits for its time is left as it is.
    _broker.kill();
    const ClientPtr impatient = newClient("edge-2");
    impatient->Connect(kAlways, {});
    ASSERT_TRUE(_log.await("Failed to connect, return code -1", 3));
    _broker.start();
    impatient->Connect({}, {});
    ASSERT_TRUE(await([&] { return impatient->PublishMessage("{}", "out", 1, 0, 0); }));
    const std::size_t made = _log.count("Success to create mqtt client");
    // The dispatching thread alone is left.
    EXPECT_TRUE(await([] { return kel::mqttStatistics().background.used == 1; }));
    EXPECT_EQ(made, _log.count("Success to create mqtt client"));

    const Broker locked(Broker::Login::kPassword);
    for (const auto& [password, code] : std::map<std::string, int>{{"wrong", 5}, {"secret", 0}}) {
        const auto guest = MqttClient::createInstance(locked.address(), "edge-1", "edge", password);
        std::promise<int> answer;
        guest->Connect([&](int rc) { return answer.set_value(rc), false; }, {});
        EXPECT_EQ(code, answer.get_future().get());
    }
}

TEST_F(MqttClientTest, ConnectsToABrokerThatKnowsTheOldVersionAlone) {
    const ScriptedBroker old(ScriptedBroker::Manner::kOld);
    _address = old.address();
    connected("edge-1");
    EXPECT_EQ(1u, old.count(1, 1));
    EXPECT_EQ(std::string("\0\6MQIsdp", 8), old.received(1, 2).at(0).body.substr(0, 8));
}

TEST_F(MqttClientTest, AnAddressTheLibraryRefusesIsReportedByEveryOperation) {
    const auto client = MqttClient::createInstance("carrier://pigeon", "", "", "");
    std::promise<int> result;
    client->Connect([&](int rc) { return result.set_value(rc), false; }, {});
    EXPECT_EQ(MQTTCLIENT_BAD_PROTOCOL, result.get_future().get());
    client->Disconnect();
    client->Unsubscribe("a");
    client->Subscribe(kIgnore, "a", 0);
    EXPECT_FALSE(client->PublishMessage("{}", "a", 0, 0, 0));
    EXPECT_EQ("", client->getstation());
    for (const char* line :
         {"Failed to create mqtt client, return code", "Failed to disconnect, _mqtt_client is null",
          "Failed to connect, return code -14",
          "no connection to carrier://pigeon: the scheme of the address is not known",
          "Failed to unsubscribe topic=a, mqtt client is null",
          "Failed to subscribe topic a, _mqtt_client is null",
          "Failed to publish message for topic=a, mqtt client is null", "_client_id is empty"}) {
        EXPECT_TRUE(_log.await(line));
    }
}

TEST(MqttClientDeathTest, ProcessEndsCleanlyInTheMiddleOfTraffic) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    // The child runs this test from its beginning and finds the parent's broker.
    const auto broker = ::getenv("KEL_TEST_BROKER") ? nullptr : std::make_unique<Broker>();
    if (broker) ::setenv("KEL_TEST_BROKER", broker->address().c_str(), 1);
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

TEST(Topics, KnowsWhatABrokerAccepts) {
    for (const char* filter : {"#", "+", "a", "/", "a/+/b", "a/#", "/kelbus/#", "+/+", "a//b"}) {
        EXPECT_TRUE(kel::topics::isValidFilter(filter)) << filter;
    }
    for (const char* filter : {"", "a#", "#/a", "a/#/b", "a+", "a/b+/c", "##"}) {
        EXPECT_FALSE(kel::topics::isValidFilter(filter)) << filter;
    }
}
