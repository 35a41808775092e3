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

        /// A copy of an arrived message; empty if its session has ended. The library then frees
        /// the message itself, or has done so.
        std::optional<Message> copy(const char* topic, const MQTTClient_message* message);

        /// Frees an arrived message, unless its session has ended meanwhile.
        /// @return whether the library shall forget it.
        bool release(char* topic, MQTTClient_message* message);

    private:
        CallbackGate& _gate;
        const Ticket _ticket;
        std::shared_ptr<MqttClient> _client;
        unsigned _session = 0;  // the one that copy() found
    };

    /// A call into the library that may find the connection gone and free the messages of the
    /// session. It waits for the moment in which a callback touches one; a callback waits for it in
    /// turn, but not where the call awaits an answer that the callback's thread brings.
    class Call {
    public:
        enum class Kind { kPublish, kAwaitsAnswer };

        Call(CallbackGate& gate, Ticket ticket, Kind kind);
        ~Call();
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

    private:
        int& count() const;

        CallbackGate& _gate;
        const Ticket _ticket;
        const Kind _kind;
    };

    /// Whether this thread is the library's own, inside one of its callbacks.
    static bool onLibraryThread();

    /// A new handle's ticket.
    Ticket issue();

    /// A session of the handle is about to begin: from now on its callbacks reach `client`.
    void openSession(Ticket ticket, MQTTClient handle, std::weak_ptr<MqttClient> client);

    /// The connect has returned and the session is not over yet: its messages are taken.
    void acceptMessages(Ticket ticket);

    /// Whether the session that began last is not over yet.
    bool inSession(Ticket ticket);

    /// The session is over or about to end: its messages are left to the library from now on.
    void closeSession(Ticket ticket);

    /// Ends the session here, waits until the handle's callbacks have returned, and then for the
    /// moment (50 ms) in which the library comes back from them. Not for the library's own threads.
    /// @return false if a callback has not returned within `patience`.
    bool quiesce(Ticket ticket, std::chrono::milliseconds patience);

    /// The handle is gone.
    void retire(Ticket ticket);

    /// No callback finds a client any more.
    void close();

private:
    using Clock = std::chrono::steady_clock;

    enum class Phase { kClosed, kConnecting, kOpen };

    // A message without its payload, which the library may not have forgotten yet.
    struct Spent {
        char* topic = nullptr;
        MQTTClient_message* message = nullptr;
        Clock::time_point since;
    };

    struct Link {
        MQTTClient handle = nullptr;
        std::weak_ptr<MqttClient> client;
        unsigned session = 0;
        Phase phase = Phase::kClosed;
        int visits = 0;
        int publishing = 0;
        int awaiting = 0;
        bool reading = false;
        Spent spent;
    };

    class Reading;

    static void free(Spent& spent);

    std::mutex _mutex;
    std::condition_variable _changed;
    // Guarded by _mutex.
    bool _closed = false;
    std::uintptr_t _lastTicket = 0;
    std::unordered_map<Ticket, Link> _links;
};

}  // namespace kel
