// Link.cpp - the library calls back on threads of its own, at any time until the client has gone.
// Every callback therefore holds the link weakly and does nothing once it has gone.

#include "Link.h"

#include <Poco/Format.h>
#include <common/NotificationCenter.h>
#include <status_page/Disclosure.h>

#include "Log.h"
#include "Outages.h"

namespace edge {

using status_page::Metric;
using status_page::Traffic;

namespace {

void tell(bool up, const std::string& detail) {
    kel::NotificationCenter::defaultCenter().postNotification(new LinkNotification(up, detail));
}

kel::MqttOptions optionsOf(const Settings& settings) {
    kel::MqttOptions options;
    options.authorities = settings.authorities;
    options.certificate = settings.certificate;
    options.privateKey = settings.privateKey;
    options.privateKeyPassphrase = settings.privateKeyPassphrase;
    options.checkServerName = settings.checkServerName;
    return options;
}

}  // namespace

Link::Link(const Settings& settings)
    : _address(status_page::Disclosure::withoutCredentials(settings.address)),
      _client(kel::MqttClient::createInstance(settings.address, settings.clientId,
                                              settings.username, settings.password,
                                              optionsOf(settings))) {}

void Link::onJson(const std::string& topic, int qos, kel::MqttClient::JsonMessageHandler handler) {
    auto noting = [weak = weak_from_this(), handler](const Poco::JSON::Object& message,
                                                     const std::string& from) {
        if (const auto self = weak.lock()) self->_traffic.note(Traffic::kReceived, from, message);
        handler(message, from);
    };
    _subscriptions.push_back(
        [=] { _client->Subscribe(kel::MqttClient::JsonMessageHandler(noting), topic, qos); });
}

void Link::onRaw(const std::string& topic, int qos, kel::MqttClient::MessageHandler handler) {
    auto noting = [weak = weak_from_this(), handler](MQTTClient_message* message,
                                                     const std::string& from) {
        if (const auto self = weak.lock()) {
            self->_traffic.note(Traffic::kReceived, from, static_cast<char*>(message->payload),
                                static_cast<std::size_t>(message->payloadlen));
        }
        handler(message, from);
    };
    _subscriptions.push_back(
        [=] { _client->Subscribe(kel::MqttClient::MessageHandler(noting), topic, qos); });
}

void Link::open() {
    const std::weak_ptr<Link> weak = weak_from_this();
    _client->SetDeliveryCompleteCallback([weak](int) {
        if (const auto self = weak.lock()) ++self->_confirmed;
    });
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
}

bool Link::publish(const std::string& payload, const std::string& topic, int qos) {
    const bool accepted = _client->PublishMessage(payload, topic, qos, 0, 0);
    ++(accepted ? _accepted[qos] : _refused);
    if (accepted) _traffic.note(Traffic::kSent, topic, payload.data(), payload.size());
    return accepted;
}

std::string Link::summary() const {
    return Poco::format(
        "published: QoS 0 %u, QoS 1 %u, QoS 2 %u; confirmed %u; refused %u; "
        "connection lost %u times",
        _accepted[0].load(), _accepted[1].load(), _accepted[2].load(), _confirmed.load(),
        _refused.load(), _losses.load());
}

Poco::JSON::Object::Ptr Link::state() const {
    Poco::JSON::Object::Ptr state(new Poco::JSON::Object);
    Poco::JSON::Array::Ptr accepted(new Poco::JSON::Array);
    for (const auto& count : _accepted) accepted->add(count.load());
    state->set("address", _address);
    state->set("connected", _up.load());
    state->set("losses", _losses.load());
    state->set("accepted", accepted);
    state->set("confirmed", _confirmed.load());
    state->set("refused", _refused.load());
    return state;
}

std::vector<Metric> Link::metrics() const {
    std::vector<Metric> all{
        {"edge_host_connected", "Whether there is a connection to the broker.", Metric::kGauge,
         _up ? 1.0 : 0.0},
        {"edge_host_connection_losses_total", "Connections to the broker that were lost.",
         Metric::kCounter, static_cast<double>(_losses)},
        {"edge_host_confirmed_total", "Messages of QoS 1 and 2 that the broker has confirmed.",
         Metric::kCounter, static_cast<double>(_confirmed)},
        {"edge_host_refused_total", "Messages that could not be published.", Metric::kCounter,
         static_cast<double>(_refused)}};
    for (int qos = 0; qos <= 2; ++qos) {
        all.push_back({"edge_host_published_total",
                       "Messages accepted for publishing.",
                       Metric::kCounter,
                       static_cast<double>(_accepted[qos]),
                       {{"qos", std::to_string(qos)}}});
    }
    return all;
}

// True asks for another attempt in 4 seconds.
bool Link::connected(int code) {
    if (code != 0) {
        poco_warning(hostLog(), Poco::format("no connection to %s, code %d", _address, code));
        return !_closing;
    }
    _up = true;
    subscribeAll();
    tell(true, _address);
    return true;
}

// Only the first time: the library restores the subscriptions of later connections itself.
void Link::subscribeAll() {
    if (_subscribed.exchange(true)) return;
    for (const auto& subscribe : _subscriptions) subscribe();
}

// True has the library wait for the broker's host and connect anew.
bool Link::lost(const std::string& cause) {
    _up = false;
    ++_losses;
    tell(false, cause);
    return !_closing;
}

}  // namespace edge
