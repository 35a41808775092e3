#include "Microservice.h"

#include "HostLog.h"

void Microservice::subscribe() {
    handle(_settings.alarmTopic, 1, &Microservice::onAlarm);
}

Poco::JSON::Object::Ptr Microservice::state() const {
    Poco::JSON::Object::Ptr state(new Poco::JSON::Object);
    state->set("alarms", _alarms.load());
    return state;
}

void Microservice::sayHello() {
    Poco::JSON::Object::Ptr presence(new Poco::JSON::Object);
    presence->set("api", "presence");
    presence->set("from", _settings.clientId);
    publish(presence, _settings.busTopic + "/presence", 0);
}

// A raw handler gets the bytes as they came; they are valid during the call only.
void Microservice::onAlarm(MQTTClient_message* alarm, const std::string&) {
    ++_alarms;
    poco_warning(hostLog(), "alarm " + std::string(static_cast<const char*>(alarm->payload),
                                                   static_cast<std::size_t>(alarm->payloadlen)));
}
