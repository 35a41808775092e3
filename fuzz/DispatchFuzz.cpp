// A message on its way to its handlers. The first byte is the length of the topic.

#include <Poco/Exception.h>

#include <thread>

#include "Fuzz.h"
#include "common/Utils.h"
#include "common/internal/mqtt/Delivery.h"

namespace {

std::shared_ptr<kel::Subscriptions> handlers() {
    auto all = std::make_shared<kel::Subscriptions>();
    const auto add = [&](const char* filter, kel::SubscribedHandler handler) {
        all->set(filter, std::make_shared<const kel::SubscribedHandler>(std::move(handler)));
    };
    add("/kelbus/#", {nullptr, [](const Poco::JSON::Object& object, const std::string&) {
                          kel::jsonToString(new Poco::JSON::Object(object));
                      }});
    add("raw", {[](MQTTClient_message* message, const std::string& topic) {
                    const auto* payload = static_cast<const char*>(message->payload);
                    const std::string text(payload, static_cast<std::size_t>(message->payloadlen));
                    fuzz::check(kel::stringToJson(text), "a handler gets what is no object");
                    if (topic.size() % 2 == 0) std::free(std::exchange(message->payload, nullptr));
                },
                nullptr});
    add("throws", {nullptr, [](const auto&, const auto&) { throw Poco::Exception("handler"); }});
    add("none", {});
    return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Surroundings surroundings;
    static const auto subscriptions = handlers();
    if (size == 0) return -1;
    const std::string all = fuzz::textOf(data + 1, size - 1);
    const std::string topic = all.substr(0, data[0]), payload = all.substr(topic.size());
    kel::Message message;
    message.topic = topic;
    message.payload = kel::Message::copyOf(payload.data(), payload.size());
    message.length = payload.size();
    kel::Messaging& messaging = kel::Messaging::instance();
    std::make_shared<kel::Delivery>(messaging, subscriptions, std::move(message))->handOut();
    while (messaging.handlers().statistics().used > 0) std::this_thread::yield();
    return 0;
}
