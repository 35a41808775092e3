// Takes two keep-alive intervals of the client, which no broker can shorten.

#include "MqttFixture.h"

TEST(MqttKeepAliveTest, FindsOutThatTheBrokerHasStoppedAnswering) {
    CapturedLog log;
    Broker broker;
    const auto client = kel::MqttClient::createInstance(broker.address(), "edge-1", "", "");
    std::promise<void> received;
    client->Subscribe([&](MQTTClient_message*, std::string) { received.set_value(); }, "a", 1);
    const auto always = [](auto&&...) { return true; };
    client->Connect(always, always);
    ASSERT_TRUE(log.await("Success to subscribe topic a"));
    broker.suspend();
    // 60 s until the library asks, 90 s more until it gives up.
    EXPECT_TRUE(await([&] { return log.count("connection lost") > 0; }, std::chrono::seconds(190)));
    broker.resume();
    ASSERT_TRUE(await([&] { return log.count("Success to subscribe topic a") == 2; },
                      std::chrono::seconds(60)));
    broker.publish("a", "{}");
    EXPECT_EQ(std::future_status::ready, received.get_future().wait_for(std::chrono::seconds(20)));
}
