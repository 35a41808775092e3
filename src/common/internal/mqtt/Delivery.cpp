#include "Delivery.h"

#include <MQTTClient.h>
#include <Poco/Dynamic/Var.h>
#include <Poco/Exception.h>
#include <Poco/Format.h>

#include <chrono>
#include <utility>

#include "../json/ParseObject.h"
#include "../log/UnitLog.h"
#include "Topics.h"

namespace kel {

namespace {

using Poco::format;

constexpr UnitLog log("src/common/MqttClient++");

// A long series of measurements fits; without a limit a peer of the broker could have the process
// ended, since 8 MiB of empty objects become 2.4 GB.
constexpr std::size_t kValues = 1'000'000;

// Empty, with the reason logged, where `text` is no JSON object or has too many values.
Poco::JSON::Object::Ptr parse(const std::string& text) {
    Poco::JSON::Object::Ptr object;
    JsonLimits limits;
    limits.values = kValues;
    logExceptions(log, [&] { object = parseJsonObject(text, limits); });
    if (!object) log.error("json msg is empty");
    return object;
}

// "" for a missing member. Throws Poco::InvalidAccessException for a JSON null.
std::string memberText(const Poco::JSON::Object& object, const std::string& name) {
    return object.has(name) ? object.get(name).convert<std::string>() : std::string();
}

}  // namespace

Delivery::Delivery(Messaging& messaging, std::shared_ptr<const Subscriptions> subscriptions,
                   Message message)
    : _messaging(messaging),
      _subscriptions(std::move(subscriptions)),
      _message(std::move(message)),
      _bytes(_message.bytes() + sizeof(Delivery)) {}

bool Delivery::tryHandOut() {
    prepare();
    bool done = !_handler;
    if (!done) logExceptions(log, [&] { done = _messaging.handlers().tryStart(task()); });
    return done;
}

void Delivery::handOut() {
    prepare();
    if (!_handler) return;
    try {
        std::function<void()> handling = task();
        // The refusal is the pool's to log.
        if (!_messaging.handle(handling)) _messaging.handlers().start(handling);
    } catch (const Poco::NoThreadAvailableException& exc) {
        log.error(exc);
        ++messagingCounters().handledInline;
        run();
    } catch (const std::exception& exc) {
        log.error(exc);
    }
}

void Delivery::prepare() {
    if (std::exchange(_prepared, true)) return;
    logExceptions(log, [this] { choose(); });
}

void Delivery::choose() {
    const std::string text(_message.payload.get(), _message.length);
    const std::string& topic = _message.topic;
    _object = parse(text);
    if (!_object) return;
    const std::string api = memberText(*_object, "api");
    if (topics::marksDroppedKind(topic) || topics::marksDroppedKind(api)) return;
    _quiet = !topics::isBus(topic);
    if (!_quiet && log.informationEnabled()) {
        log.information(format("mqtt rece msg: %s, topic=%s", text, topic));
    }
    if (memberText(*_object, "type") == "response") return;
    _handler = _subscriptions->find(topic);
    if (!_quiet) log.information(format("Begin handle msg, topic: %s", topic));
    if (_handler && _handler->raw) _object.reset();
}

std::function<void()> Delivery::task() {
    return [self = shared_from_this()] { self->run(); };
}

void Delivery::run() {
    if (!_quiet) log.information(format("Begin handle msg async, topic: %s", _message.topic));
    const bool done = logExceptions(log, [this] { callHandler(); });
    if (done && !_quiet) {
        log.information(format("End handle msg async, topic: %s", _message.topic));
    }
}

void Delivery::callHandler() {
    if (_handler->raw) {
        MQTTClient_message message = MQTTClient_message_initializer;
        message.payload = _message.payload.release();
        message.payloadlen = static_cast<int>(_message.length);
        // Given back afterwards; a host may have freed it and set it to null.
        const struct Owner {
            ~Owner() { std::free(message.payload); }
            MQTTClient_message& message;
        } owner{message};
        _handler->raw(&message, _message.topic);
    } else if (_handler->json) {
        logExceptions(log, [this] { _handler->json(*_object, _message.topic); });
    } else {
        log.error("invalid json string");
    }
}

}  // namespace kel
