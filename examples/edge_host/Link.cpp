// Link.cpp - the library calls back on threads of its own, at any time until the client is
// destroyed. Each callback therefore holds the link weakly, and does nothing once it is destroyed.

#include "Link.h"

#include <Poco/Clock.h>
#include <Poco/Format.h>
#include <common/Logger.h>
#include <common/Statistics.h>
#include <status_page/Disclosure.h>

namespace edge {

Link::Link(const Settings& settings)
    : _address(status_page::Disclosure::withoutCredentials(settings.address)),
      _client(kel::MqttClient::createInstance(settings.address, settings.clientId,
                                              settings.username, settings.password,
                                              settings.mqtt)) {}

void Link::open(std::function<void()> onConnected) {
    _onConnected = std::move(onConnected);
    const std::weak_ptr<Link> weak = weak_from_this();
    _client->Connect(
        [weak](int code) {
            const auto self = weak.lock();
            return self && self->connected(code);
        },
        [weak](const std::string& cause) {
            const auto self = weak.lock();
            return self && self->lost(cause);
        });
}

void Link::close() {
    _closing = true;
    _client->Disconnect();
    const kel::MqttStatistics mqtt = kel::statistics().mqtt;  // of the process's only connection
    kel::logLine(Poco::Message::PRIO_NOTICE,
                 Poco::format("published: QoS 0 %Lu, QoS 1 %Lu, QoS 2 %Lu; confirmed %Lu; "
                              "refused %Lu; connection lost %u times",
                              mqtt.published[0], mqtt.published[1], mqtt.published[2],
                              mqtt.confirmed, mqtt.refused, _losses.load()));
}

Poco::JSON::Object::Ptr Link::state() const {
    Poco::JSON::Object::Ptr state(new Poco::JSON::Object);
    state->set("address", _address);
    state->set("connected", _up.load());
    state->set("losses", _losses.load());
    return state;
}

// True asks for another attempt in 4 seconds.
bool Link::connected(int code) {
    if (code != 0) {
        kel::logLine(Poco::Message::PRIO_WARNING,
                     Poco::format("no connection to %s, code %d", _address, code));
        return !_closing;
    }
    _up = true;
    _onConnected();
    const Poco::Int64 lostAt = _lostAt.exchange(0);
    if (lostAt == 0) {
        kel::logLine(Poco::Message::PRIO_NOTICE, "connected to " + _address);
    } else {
        const double seconds = static_cast<double>(Poco::Clock().microseconds() - lostAt) / 1e6;
        kel::logLine(Poco::Message::PRIO_NOTICE,
                     Poco::format("outage %u is over: connected to %s again after %.1f s",
                                  _losses.load(), _address, seconds));
    }
    return true;
}

// True has the library wait for the broker's host and connect anew.
bool Link::lost(const std::string& cause) {
    _up = false;
    _lostAt = Poco::Clock().microseconds();
    kel::logLine(Poco::Message::PRIO_WARNING,
                 Poco::format("outage %u: lost the broker (%s)", ++_losses,
                              cause.empty() ? std::string("no cause given") : cause));
    return !_closing;
}

}  // namespace edge
