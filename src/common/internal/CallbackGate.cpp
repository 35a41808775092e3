// CallbackGate.cpp - what the MQTT library's threads may touch, and until when.
//
// The library empties its message queue when a session ends, on whichever thread ends it, and
// destroys a handle without a look at callbacks in progress. A message that a callback holds then
// may be freed twice, and a handle read after it was freed. Hence:
//   - copy() and release() touch a message only while its session is open; otherwise the callback
//     reports "not taken", after which the library does not touch the message either.
//   - The library calls without its lock, and unlinks the message after it has taken the lock
//     again. It gets kSettle for the way to and from a callback before we end the session, and
//     again before we destroy the handle.

#include "CallbackGate.h"

#include <thread>

#include "../MqttClient++.h"

namespace kel {

namespace {

constexpr auto kSettle = std::chrono::milliseconds(50);

thread_local int visitsOfThisThread = 0;

}  // namespace

CallbackGate::Visit::Visit(CallbackGate& gate, Ticket ticket) : _gate(gate), _ticket(ticket) {
    ++visitsOfThisThread;
    const std::lock_guard<std::mutex> lock(_gate._mutex);
    const auto link = _gate._links.find(_ticket);
    if (link == _gate._links.end()) return;
    ++link->second.visits;
    _client = link->second.client.lock();
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

std::optional<CallbackGate::Message> CallbackGate::Visit::copy(const char* topic,
                                                               const MQTTClient_message* message) {
    const std::lock_guard<std::mutex> lock(_gate._mutex);
    if (!_client) return {};
    const Link& link = _gate._links[_ticket];
    if (!link.sessionOpen) return {};
    _session = link.session;
    return Message{topic, std::string(static_cast<const char*>(message->payload),
                                      static_cast<std::size_t>(message->payloadlen))};
}

bool CallbackGate::Visit::release(char* topic, MQTTClient_message* message) const {
    std::unique_lock<std::mutex> lock(_gate._mutex);
    const Link& link = _gate._links[_ticket];
    const MQTTClient handle = link.handle;
    lock.unlock();
    // Waits for a publisher that is finding out just now that the connection has gone.
    if (!MQTTClient_isConnected(handle)) return false;
    lock.lock();
    if (!link.sessionOpen || link.session != _session) return false;
    MQTTClient_freeMessage(&message);
    MQTTClient_free(topic);
    return true;
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
    link.sessionOpen = true;
}

void CallbackGate::closeSession(Ticket ticket) {
    const std::lock_guard<std::mutex> lock(_mutex);
    const auto link = _links.find(ticket);
    if (link != _links.end()) link->second.sessionOpen = false;
}

bool CallbackGate::quiesce(Ticket ticket, std::chrono::milliseconds patience) {
    closeSession(ticket);
    std::unique_lock<std::mutex> lock(_mutex);
    const Link& link = _links[ticket];
    const bool idle = _changed.wait_for(lock, patience, [&] { return link.visits == 0; });
    lock.unlock();
    std::this_thread::sleep_for(kSettle);
    return idle;
}

void CallbackGate::retire(Ticket ticket) {
    const std::lock_guard<std::mutex> lock(_mutex);
    _links.erase(ticket);
}

}  // namespace kel
