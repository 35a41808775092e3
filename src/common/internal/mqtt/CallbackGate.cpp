// CallbackGate.cpp - what the MQTT library's threads may touch, and until when.
//
// When a session ends, on whichever thread that is found out, the library frees the messages of its
// queue, the one that a callback holds just now included; it forgets a message only after the
// callback has returned and it has taken its own lock again; and it destroys a handle without a
// look at callbacks in progress. Hence:
//   - A callback touches a message only in an open session, which it asks the library about while
//     none of our publishers is in there. Otherwise it reports "not taken", after which the library
//     does not touch the message either. A publisher that waits in there for room is not waited
//     for; should it find the connection gone at that very moment, the library's own heap check is
//     what is left.
//   - What a broker sends before it has been asked for anything is freed by the connect itself, so
//     messages are taken only some time (kSettle) after that.
//   - A message is freed in two steps: its payload at once, the rest when the next callback shows
//     that the library has forgotten it. Where a publisher may have found the connection gone just
//     after a callback, the rest, a topic and an empty record, may have been freed already: it is
//     given up.
//   - We end a session, and then destroy the handle, only after its callbacks have returned and
//     the library has had kSettle to come back from them.

#include "CallbackGate.h"

#include <thread>
#include <utility>

#include "../../MqttClient++.h"

namespace kel {

namespace {

constexpr auto kSettle = std::chrono::milliseconds(50);
constexpr auto kPublishPatience = std::chrono::milliseconds(5);

thread_local int visitsOfThisThread = 0;

}  // namespace

CallbackGate::Visit::Visit(CallbackGate& gate, Ticket ticket) : _gate(gate), _ticket(ticket) {
    ++visitsOfThisThread;
    const std::lock_guard<std::mutex> lock(_gate._mutex);
    const auto link = _gate._links.find(_ticket);
    if (link == _gate._links.end()) return;
    ++link->second.visits;
    if (!_gate._closed) _client = link->second.client.lock();
}

CallbackGate::Visit::~Visit() {
    _client.reset();  // may destroy the client, which then leaves the handle to another thread
    {
        const std::lock_guard<std::mutex> lock(_gate._mutex);
        const auto link = _gate._links.find(_ticket);
        if (link != _gate._links.end()) {
            --link->second.visits;
            _gate._changed.notify_all();
        }
    }
    --visitsOfThisThread;
}

// The moment in which a callback touches a message; made and ended under the gate's lock. Asks the
// library without it, since that calls us with its own held.
class CallbackGate::Reading {
public:
    Reading(CallbackGate& gate, std::unique_lock<std::mutex>& lock, Link& link, unsigned session)
        : _gate(gate), _link(link) {
        link.reading = true;  // no further publisher enters
        gate._changed.wait_for(lock, kPublishPatience, [&] { return link.publishing == 0; });
        const MQTTClient handle = link.handle;
        lock.unlock();
        const bool connected = MQTTClient_isConnected(handle);
        lock.lock();
        _allowed = connected && link.phase == Phase::kOpen && link.session == session;
    }
    ~Reading() {
        _link.reading = false;
        _gate._changed.notify_all();
    }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

    explicit operator bool() const { return _allowed; }

private:
    CallbackGate& _gate;
    Link& _link;
    bool _allowed = false;
};

std::optional<CallbackGate::Message> CallbackGate::Visit::copy(const char* topic,
                                                               const MQTTClient_message* message) {
    if (!_client) return {};
    std::unique_lock<std::mutex> lock(_gate._mutex);
    Link& link = _gate._links[_ticket];
    if (link.phase != Phase::kOpen) return {};
    free(link.spent);
    _session = link.session;
    const Reading reading(_gate, lock, link, _session);
    if (!reading) return {};
    return Message{topic, std::string(static_cast<const char*>(message->payload),
                                      static_cast<std::size_t>(message->payloadlen))};
}

bool CallbackGate::Visit::release(char* topic, MQTTClient_message* message) {
    std::unique_lock<std::mutex> lock(_gate._mutex);
    Link& link = _gate._links[_ticket];
    const Reading reading(_gate, lock, link, _session);
    if (!reading) return false;
    MQTTClient_free(std::exchange(message->payload, nullptr));
    message->payloadlen = 0;
    link.spent = {topic, message, Clock::now()};
    return true;
}

CallbackGate::Call::Call(CallbackGate& gate, Ticket ticket, Kind kind)
    : _gate(gate), _ticket(ticket), _kind(kind) {
    std::unique_lock<std::mutex> lock(_gate._mutex);
    const Link& link = _gate._links[_ticket];
    _gate._changed.wait(lock, [&] { return !link.reading; });
    ++count();
}

CallbackGate::Call::~Call() {
    const std::lock_guard<std::mutex> lock(_gate._mutex);
    if (--count() == 0) _gate._changed.notify_all();
}

int& CallbackGate::Call::count() const {
    Link& link = _gate._links[_ticket];
    return _kind == Kind::kPublish ? link.publishing : link.awaiting;
}

bool CallbackGate::onLibraryThread() {
    return visitsOfThisThread > 0;
}

CallbackGate::Ticket CallbackGate::issue() {
    const std::lock_guard<std::mutex> lock(_mutex);
    const auto ticket = reinterpret_cast<Ticket>(++_lastTicket);
    _links[ticket] = Link{};
    return ticket;
}

void CallbackGate::openSession(Ticket ticket, MQTTClient handle, std::weak_ptr<MqttClient> client) {
    const std::lock_guard<std::mutex> lock(_mutex);
    Link& link = _links[ticket];
    link.handle = handle;
    link.client = std::move(client);
    ++link.session;
    link.phase = Phase::kConnecting;
}

void CallbackGate::acceptMessages(Ticket ticket) {
    std::this_thread::sleep_for(kSettle);
    const std::lock_guard<std::mutex> lock(_mutex);
    Link& link = _links[ticket];
    if (link.phase == Phase::kConnecting) link.phase = Phase::kOpen;
}

bool CallbackGate::inSession(Ticket ticket) {
    const std::lock_guard<std::mutex> lock(_mutex);
    const auto link = _links.find(ticket);
    return link != _links.end() && link->second.phase != Phase::kClosed;
}

void CallbackGate::closeSession(Ticket ticket) {
    const std::lock_guard<std::mutex> lock(_mutex);
    const auto entry = _links.find(ticket);
    if (entry == _links.end()) return;
    Link& link = entry->second;
    link.phase = Phase::kClosed;
    // The receive thread has come back from its callbacks when it is the one that found the loss.
    const bool foundElsewhere = link.publishing + link.awaiting > 0;
    if (foundElsewhere && Clock::now() < link.spent.since + kSettle) link.spent = {};
    free(link.spent);
}

bool CallbackGate::quiesce(Ticket ticket, std::chrono::milliseconds patience) {
    std::unique_lock<std::mutex> lock(_mutex);
    Link& link = _links[ticket];
    link.phase = Phase::kClosed;
    const bool idle = _changed.wait_for(lock, patience, [&] { return link.visits == 0; });
    lock.unlock();
    std::this_thread::sleep_for(kSettle);
    closeSession(ticket);
    return idle;
}

void CallbackGate::retire(Ticket ticket) {
    const std::lock_guard<std::mutex> lock(_mutex);
    _links.erase(ticket);
}

void CallbackGate::close() {
    const std::lock_guard<std::mutex> lock(_mutex);
    _closed = true;
}

void CallbackGate::free(Spent& spent) {
    if (!spent.message) return;
    MQTTClient_freeMessage(&spent.message);
    MQTTClient_free(spent.topic);
    spent = {};
}

}  // namespace kel
