#include "Microservice.h"

#include <common/Utils.h>

#include "Log.h"

namespace edge {

void Microservice::subscribe() {
    handle(_settings.alarmTopic, 1, &Microservice::onAlarm);
}

Poco::JSON::Object::Ptr Microservice::counters() const {
    Poco::JSON::Object::Ptr state(new Poco::JSON::Object);
    state->set("alarms", _alarms.load());
    return state;
}

void Microservice::sayHello() {
    Poco::JSON::Object::Ptr presence(new Poco::JSON::Object);
    presence->set("api", "presence");
    presence->set("from", _settings.clientId);
    send(presence, _settings.busTopic + "/presence", 0);
}

// A raw handler gets the bytes as they came, valid during the call only. They are written anew for
// the log, in which a line break of a peer's must not begin a line.
void Microservice::onAlarm(MQTTClient_message* alarm, const std::string&) {
    ++_alarms;
    const std::string text(static_cast<const char*>(alarm->payload),
                           static_cast<std::size_t>(alarm->payloadlen));
    poco_warning(hostLog(), "alarm " + kel::jsonToString(kel::stringToJson(text)));
}

}  // namespace edge
