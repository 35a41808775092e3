#pragma once

#include <MQTTClient.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace kel {

class MqttClient;

/// Stands between the MQTT library's callbacks and the clients of the process. The library gets a
/// ticket instead of a pointer, one per handle, so that a callback which comes late finds nothing
/// instead of freed memory; and a handle is destroyed only after its callbacks have returned.
/// Threads: any.
class CallbackGate {
public:
    using Ticket = void*;  // never null, never used twice

    struct Message {
        std::string topic;
        std::string payload;
    };

    /// One callback in progress. While it exists its thread counts as the library's own, its
    /// client stays alive and its handle is not destroyed.
    class Visit {
    public:
        Visit(CallbackGate& gate, Ticket ticket);
        ~Visit();
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;

        /// Empty if the handle or its client is gone.
        const std::shared_ptr<MqttClient>& client() const { return _client; }

        /// A copy of an arrived message; empty if the session has ended. The library then frees
        /// the message itself, or has done so.
        std::optional<Message> copy(const char* topic, const MQTTClient_message* message);

        /// Frees an arrived message, unless the session has ended meanwhile.
        /// @return whether it did, which is what the library wants to know.
        bool release(char* topic, MQTTClient_message* message) const;

    private:
        CallbackGate& _gate;
        const Ticket _ticket;
        std::shared_ptr<MqttClient> _client;
        unsigned _session = 0;  // the one that copy() found
    };

    /// Whether this thread is the library's own, inside one of its callbacks.
    static bool onLibraryThread();

    /// A new handle's ticket.
    Ticket issue();

    /// A session of the handle is about to begin: its callbacks reach `client`, its messages are
    /// taken.
    void openSession(Ticket ticket, MQTTClient handle, std::weak_ptr<MqttClient> client);

    /// The session is over or about to end: its messages are left to the library from now on.
    void closeSession(Ticket ticket);

    /// Ends the session here, waits until the handle's callbacks have returned, and then for the
    /// moment (50 ms) in which the library comes back from them. Not for the library's own threads.
    /// @return false if a callback has not returned within `patience`.
    bool quiesce(Ticket ticket, std::chrono::milliseconds patience);

    /// The handle is gone.
    void retire(Ticket ticket);

private:
    struct Link {
        MQTTClient handle = nullptr;
        std::weak_ptr<MqttClient> client;
        unsigned session = 0;
        bool sessionOpen = false;
        int visits = 0;
    };

    std::mutex _mutex;
    std::condition_variable _changed;
    // Guarded by _mutex.
    std::uintptr_t _lastTicket = 0;
    std::unordered_map<Ticket, Link> _links;
};

}  // namespace kel
