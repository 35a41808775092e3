#include "common/Statistics.h"

#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <tuple>

#include "Await.h"
#include "Broker.h"
#include "RawHttp.h"
#include "common/Logger.h"
#include "common/MqttClient++.h"
#include "common/ThreadPool.h"
#include "common/WebApiBasic.h"

namespace {

class Statistics : public testing::Test {
protected:
    Statistics() {
        kel::loadLogging();
        _client = kel::MqttClient::createInstance(_broker.address(), "edge-1", "", "");
        _client->Connect([](int) { return true; }, [](std::string) { return true; });
        const auto publishes = [this] { return _client->PublishMessage("{}", "out", 0, 0, 0); };
        EXPECT_TRUE(await(publishes));  // what is subscribed earlier is subscribed at QoS 0
        _client->Subscribe(
            [this](const Poco::JSON::Object& object, std::string) { _marks += object.has("mark"); },
            "in", 2);
    }

    // Whether all that came before has been handled.
    bool mark() {
        const int marks = _marks;
        return await([&] {
            _broker.publish("in", R"({"mark": 1})");
            return _marks > marks;
        });
    }

    // A server with a route of each kind gets five requests and is gone again.
    static void serveFive() {
        const auto web = kel::WebApiBasic::instance();
        web->apiRegist("/good");
        web->apiRegist("/moved", [](auto&, auto& reply, auto&) { reply.redirect("/good"); });
        web->apiRegist("/fails", [](auto&, auto&, auto&) { throw Poco::RuntimeException("so"); });
        web->apiRegist("/bad", [](auto&, auto& reply, auto&) {
            reply.setStatus(Poco::Net::HTTPResponse::HTTP_BAD_REQUEST);
            reply.send() << "{}";
        });
        const Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
        web->start(socket);
        for (const char* path : {"/good", "/good", "/moved", "/bad", "/fails"}) {
            RawClient(socket.address().port()).send(request(std::string("GET ") + path)).read();
        }
        web->stop();
    }

    void useEverything() {
        for (const int qos : {0, 1, 1, 2}) _broker.publish("in", "{}", qos);
        _broker.publish("in", R"({"type": "response"})", 2);  // received, but dropped
        for (const int qos : {0, 1, 2, 2, 2}) {
            EXPECT_TRUE(_client->PublishAndWait("{}", "out", qos, 0, std::chrono::seconds(20)));
        }
        EXPECT_FALSE(_client->PublishMessage("{}", "", 1, 0, 0));
        serveFive();
        serveFive();
    }

    Broker _broker;
    std::shared_ptr<kel::MqttClient> _client;
    std::atomic<int> _marks{0};
};

}  // namespace

TEST_F(Statistics, CountWhatGoesThroughEachPartOfTheLibrary) {
    ASSERT_TRUE(mark());
    const kel::Statistics before = kel::statistics();
    useEverything();
    ASSERT_TRUE(mark());
    // The lines of this thread have been taken in; writing them is the logging threads' part.
    for (int i = 0; i < 7; ++i) Poco::Logger::get(kel::logName()).information("a line");
    const kel::Statistics after = kel::statistics();
    const auto &mqtt = after.mqtt, &mqttBefore = before.mqtt;
    const auto &http = after.http, &httpBefore = before.http;
    const std::vector<std::tuple<const char*, std::uint64_t, std::uint64_t, std::uint64_t>> cases =
        {
            {"received at QoS 1", 2, mqttBefore.received[1], mqtt.received[1]},
            {"received at QoS 2", 2, mqttBefore.received[2], mqtt.received[2]},
            {"published at QoS 0", 1, mqttBefore.published[0], mqtt.published[0]},
            {"published at QoS 1", 1, mqttBefore.published[1], mqtt.published[1]},
            {"published at QoS 2", 3, mqttBefore.published[2], mqtt.published[2]},
            {"confirmed", 4, mqttBefore.confirmed, mqtt.confirmed},
            {"refused", 1, mqttBefore.refused, mqtt.refused},
            {"requests", 10, httpBefore.requests, http.requests},
            {"2xx", 4, httpBefore.status2xx, http.status2xx},
            {"3xx", 2, httpBefore.status3xx, http.status3xx},
            {"4xx", 2, httpBefore.status4xx, http.status4xx},
            {"5xx", 2, httpBefore.status5xx, http.status5xx},
        };
    for (const auto& [what, expected, was, is] : cases) EXPECT_EQ(expected, is - was) << what;
    EXPECT_GE(mqtt.received[0] - mqttBefore.received[0], 1u);
    EXPECT_GE(after.log.lines - before.log.lines, 7u);
    EXPECT_TRUE(await([&] { return kel::statistics().log.written >= after.log.lines; }));
    EXPECT_GT(after.log.queueBytes.highWater, 0u);
    EXPECT_EQ(32u, mqtt.handlers.limit);
}

TEST_F(Statistics, ShowQueuesAndThreadsAsTheyAreAndReconnections) {
    ASSERT_TRUE(mark());
    const std::uint64_t before = kel::statistics().mqtt.reconnections;
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    kel::ThreadPool::defaultPool().start([released] { released.wait(); });
    EXPECT_EQ(1u, kel::statistics().pool.used);
    _broker.restart();
    EXPECT_TRUE(await([&] { return kel::statistics().mqtt.reconnections == before + 1; }));
    ASSERT_TRUE(mark());

    // Handlers that block take every thread; what comes then waits in the queue.
    std::atomic<unsigned> begun{0};
    _client->Subscribe(
        [&](const Poco::JSON::Object&, std::string) {
            ++begun;
            released.wait();
        },
        "block", 1);
    EXPECT_TRUE(await([&] {
        _client->PublishMessage("{}", "block", 0, 0, 0);
        return kel::statistics().mqtt.queue.depth >= 5;
    }));
    const kel::Statistics full = kel::statistics();
    EXPECT_EQ(32u, full.mqtt.handlers.used);
    EXPECT_GE(full.mqtt.queue.highWater, 5u);
    EXPECT_GE(full.mqtt.handledInline, 1u);
    release.set_value();
    EXPECT_TRUE(await([] {
        const kel::Statistics now = kel::statistics();
        return now.mqtt.queue.depth == 0 && now.mqtt.handlers.used == 0 && now.pool.used == 0;
    }));
}
