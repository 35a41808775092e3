#include "Roles.h"

#include <Poco/Format.h>
#include <Poco/NumberFormatter.h>
#include <common/Logger.h>

#include <sstream>

namespace edge {

namespace {

// The plant may send to any number of topics of any length, and the table that counts the readings
// by topic must not grow without bound.
constexpr std::size_t kTopics = 100;
constexpr std::size_t kTopicLength = 200;

bool isNumber(const Poco::Dynamic::Var& value) {
    return !value.isEmpty() && value.isNumeric() && !value.isBoolean();
}

bool isName(const Poco::Dynamic::Var& value) {
    return !value.isEmpty() && value.isString() && !value.toString().empty();
}

std::string label(const Poco::JSON::Object& reading) {
    return "#" + std::to_string(reading.optValue<Poco::Int64>("seq", 0));
}

}  // namespace

void Server::subscribe() {
    handle(_settings.telemetryTopic, 1, &Server::onTelemetry);
}

Poco::JSON::Object::Ptr Server::counters() const {
    Poco::JSON::Object::Ptr state(new Poco::JSON::Object);
    state->set("readings", _readings.load());
    state->set("odd", _odd.load());
    state->set("alarms", _alarms.load());
    Poco::JSON::Object::Ptr topics(new Poco::JSON::Object);
    const std::lock_guard<std::mutex> lock(_mutex);
    for (const auto& [topic, count] : _byTopic) topics->set(topic, count);
    state->set("topics", topics);
    return state;
}

void Server::countTopic(const std::string& topic) {
    if (topic.size() > kTopicLength) return;
    const std::lock_guard<std::mutex> lock(_mutex);
    if (_byTopic.size() < kTopics || _byTopic.count(topic) > 0) ++_byTopic[topic];
}

// The library hands on only JSON objects; whatever is in them may be missing or of any type.
void Server::onTelemetry(const Poco::JSON::Object& reading, const std::string& topic) {
    countTopic(topic);
    const Poco::Dynamic::Var sensor = reading.get("sensor");
    const Poco::Dynamic::Var value = reading.get("value");
    if (!isName(sensor) || !isNumber(value)) {
        ++_odd;
        const char* missing = isName(sensor) ? "value" : "sensor";
        kel::logLine(
            Poco::Message::PRIO_WARNING,
            Poco::format("odd reading %s: no usable %s", label(reading), std::string(missing)));
        return;
    }
    ++_readings;
    const double number = value.convert<double>();
    const std::string name = sensor.toString();
    kel::logLine(Poco::Message::PRIO_INFORMATION, "reading " + label(reading) + " " + quoted(name) +
                                                      " = " +
                                                      Poco::NumberFormatter::format(number));
    if (number > _settings.alarmLimit) raiseAlarm(name, number);
}

void Server::raiseAlarm(const std::string& sensor, double value) {
    Poco::JSON::Object::Ptr alarm(new Poco::JSON::Object);
    alarm->set("api", "alarm");
    alarm->set("sensor", sensor);
    alarm->set("value", value);
    alarm->set("limit", _settings.alarmLimit);
    if (!send(alarm, _settings.alarmTopic, 1)) return;
    ++_alarms;
    kel::logLine(Poco::Message::PRIO_NOTICE, "raising an alarm for " + quoted(sensor));
}

void Microservice::subscribe() {
    handle(_settings.alarmTopic, 1, &Microservice::onAlarm);
}

Poco::JSON::Object::Ptr Microservice::counters() const {
    Poco::JSON::Object::Ptr state(new Poco::JSON::Object);
    state->set("alarms", _alarms.load());
    return state;
}

// Written anew as JSON, in which a line break of a peer's cannot begin a line of the log.
void Microservice::onAlarm(const Poco::JSON::Object& alarm, const std::string&) {
    ++_alarms;
    std::ostringstream text;
    alarm.stringify(text);
    kel::logLine(Poco::Message::PRIO_WARNING, "alarm " + text.str());
}

std::shared_ptr<Node> makeNode(const Settings& settings) {
    if (settings.role == "server") return std::make_shared<Server>(settings);
    return std::make_shared<Microservice>(settings);
}

}  // namespace edge
