// Node.cpp - handlers run on the library's pool, several at a time: what they change is atomic.

#include "Node.h"

#include <Poco/Format.h>
#include <common/Logger.h>
#include <common/Utils.h>

namespace edge {

namespace {

const char* peerOf(const std::string& role) {
    return role == "server" ? "microservice" : "server";
}

}  // namespace

Node::Node(const Settings& settings)
    : _settings(settings),
      _ownTopic(settings.busTopic + "/" + settings.role),
      _peerTopic(settings.busTopic + "/" + peerOf(settings.role)),
      _link(std::make_shared<Link>(settings)) {}

void Node::start() {
    _link->open([weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->subscribeAll();
    });
}

void Node::subscribeAll() {
    handle(_ownTopic + "/requests", 1, &Node::onRequest);
    handle(_ownTopic + "/answers", 2, &Node::onAnswer);
    handle(testTopic(), 1, &Node::onTest);
    subscribe();
}

void Node::stop() {
    _link->close();
    kel::logLine(Poco::Message::PRIO_NOTICE,
                 Poco::format("asked %d times, answered %d times; state %s", _asked.load(),
                              _answered.load(), kel::jsonToString(counters())));
}

void Node::askPeer() {
    if (!_link->isUp()) return;
    Poco::JSON::Object::Ptr request(new Poco::JSON::Object);
    request->set("api", "state");
    request->set("type", "request");
    request->set("id", _asked + 1);
    request->set("replyTo", _ownTopic + "/answers");
    if (send(request, _peerTopic + "/requests", 1)) ++_asked;
}

bool Node::send(const Poco::JSON::Object::Ptr& message, const std::string& topic, int qos) {
    return publish(kel::jsonToString(message), topic, qos);
}

bool Node::publish(const std::string& text, const std::string& topic, int qos) {
    if (!_link->client().PublishMessage(text, topic, qos, 0, 0)) return false;
    _traffic.note(status_page::Traffic::kSent, topic, text.data(), text.size());
    return true;
}

Poco::JSON::Object::Ptr Node::description() const {
    Poco::JSON::Object::Ptr description(new Poco::JSON::Object);
    description->set("name", "edge_host");
    description->set("version", EDGE_HOST_VERSION);
    description->set("role", _settings.role);
    description->set("clientId", _settings.clientId);
    description->set("testTopic", testTopic());
    return description;
}

Poco::JSON::Object::Ptr Node::connection() const {
    Poco::JSON::Object::Ptr state = _link->state();
    state->set("asked", _asked.load());
    state->set("answered", _answered.load());
    return state;
}

// A peer may ask for answers on the bus only.
bool Node::isBusTopic(const std::string& topic) const {
    const std::string bus = _settings.busTopic + "/";
    return topic.compare(0, bus.size(), bus) == 0 && topic.find_first_of("#+") == std::string::npos;
}

void Node::onRequest(const Poco::JSON::Object& request, const std::string&) {
    const std::string replyTo = request.optValue<std::string>("replyTo", "");
    if (!isBusTopic(replyTo)) {
        kel::logLine(Poco::Message::PRIO_WARNING,
                     "request without a usable \"replyTo\": " + quoted(replyTo));
        return;
    }
    Poco::JSON::Object::Ptr answer(new Poco::JSON::Object);
    answer->set("type", "answer");
    answer->set("id", request.optValue<Poco::Int64>("id", 0));
    answer->set("from", _settings.clientId);
    if (request.optValue<std::string>("api", "") == "state") {
        answer->set("state", counters());
    } else {
        answer->set("error", "unknown api");
    }
    send(answer, replyTo, 2);
}

void Node::onAnswer(const Poco::JSON::Object& answer, const std::string&) {
    ++_answered;
    kel::logLine(Poco::Message::PRIO_INFORMATION,
                 "answer from " + quoted(answer.optValue<std::string>("from", "")) +
                     " to request " + std::to_string(answer.optValue<Poco::Int64>("id", 0)));
}

}  // namespace edge
