#pragma once

#include <MQTTClient.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ConnectOptions.h"
#include "Gathering.h"
#include "InFlightWindow.h"
#include "Message.h"
#include "Receipt.h"

namespace kel {

/// What a connection tells its client, on the MQTT library's threads, so none may wait unless it
/// says so, and none may call back into the connection.
class ConnectionEvents {
public:
    virtual ~ConnectionEvents() = default;

    /// @param mayWait  whether the call may wait for room; false while the library holds its lock.
    virtual void messageArrived(Message message, bool mayWait) = 0;

    /// A message of QoS 1 or 2 has been acknowledged; once for each.
    virtual void messageDelivered(int token) = 0;

    /// A session that connect() had made is over, and not by disconnect() or close().
    virtual void sessionLost(const std::string& cause) = 0;
};

/// One handle of the MQTT library with its sessions, their in-flight window and their callbacks.
/// Beside ReceiveThread, which has a handle of its own, the only caller of MQTTClient_*.
/// Threads: any, except that in the delivery callback the library holds its lock, so that close()
/// alone is possible there.
class Connection : public std::enable_shared_from_this<Connection> {
public:
    /// A new handle, which is logged, as is a failure.
    /// @param rc  receives the library's code; the result is empty if it is not 0.
    static std::shared_ptr<Connection> create(const ConnectOptions& options, int& rc);

    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Makes a session, ending one that there is, and waits for the broker. The caller has the
    /// ConnectTurn; one call at a time. @return the library's code, 0 for success.
    int connect(const ConnectOptions& options, std::weak_ptr<ConnectionEvents> events);

    /// Waits until no subscribe and unsubscribe is in progress, which connect() would wait for.
    void awaitAnswers();

    /// Ends the session at the broker; waits up to 2 s for unacknowledged messages.
    int disconnect();

    /// The end of the connection, in the background where the caller's thread is the library's:
    /// nothing is told any more, the session ends as with disconnect(), and the handle is destroyed
    /// in the background once no call and no callback is left in it. Repeatable.
    void close();

    /// Whether the session that connect() made last is not over yet.
    bool isUp() const { return _up; }

    /// At QoS 1 and 2 waits for a place in the window. The library's code, 0 for success.
    int publish(const std::string& payload, const std::string& topic, int qos, int retained) {
        return publish(payload, topic, qos, retained, nullptr, {});
    }

    /// As above, and waits for the confirmation; neither wait is longer than until `deadline`.
    /// @param fate  what has become of the message where the code is 0; kConfirmed at QoS 0.
    int publishAndWait(const std::string& payload, const std::string& topic, int qos, int retained,
                       Receipt::Clock::time_point deadline, Receipt::Fate& fate);

    /// Subscribes all of them in one packet and waits for the answer. @return the library's code,
    /// and in `qos` what the broker granted, 128 for a refusal.
    int subscribe(const std::vector<std::string>& filters, std::vector<int>& qos);

    int unsubscribe(const std::string& filter);

    /// Whether the calling thread is in the delivery callback.
    static bool libraryHoldsItsLock();

    /// Tells of sessions that are over although the library has not said so, which it does on a new
    /// thread each time, or never where the system has none. From one thread, every few seconds:
    /// the second call that finds a session so tells.
    static void tellSilentLosses();

    /// The library is stopped: no connection tells its client anything until its next connect().
    static void silenceAll();

private:
    class Call;
    struct Hooks;
    struct Table;

    Connection() = default;

    int publish(const std::string& payload, const std::string& topic, int qos, int retained,
                const std::shared_ptr<Receipt>& receipt, Receipt::Clock::time_point deadline);
    void setCallbacks();
    int tryVersions(MQTTClient_connectOptions& form, const std::string& address);
    void silence();
    void tellIfSilentlyLost();
    std::shared_ptr<ConnectionEvents> events() const;
    int endSession();
    void holdBack();
    void endLastSession();
    void destroyWhenUnused();
    void destroyHandle();

    // Told by the library, on its threads; see Connection.cpp.
    int messageArrived(char* topic, MQTTClient_message* message);
    void queued(Message message);
    void unqueued();
    void cleared();
    void lost(const std::string& cause);
    void delivered(int token);

    // Set at creation.
    MQTTClient _handle = nullptr;
    void* _ticket = nullptr;

    // Own locking.
    InFlightWindow _window;
    Gathering _gathering;
    std::atomic<bool> _up{false};
    std::atomic<bool> _closed{false};
    std::atomic<int> _calls{0};  // into the library

    std::atomic<bool> _lossUntold{false};  // the session has ended by itself
    bool _seenUntold = false;              // of the thread that calls tellSilentLosses()

    // Held across calls that await an answer: the library keeps only one answer for each handle.
    std::mutex _answerMutex;

    mutable std::mutex _mutex;
    std::condition_variable _returned;
    // Guarded by _mutex, which is taken inside the library's lock and never the other way round.
    std::weak_ptr<ConnectionEvents> _events;
    std::deque<Message> _arrived;  // copied, and not handed on yet
    int _queued = 0;               // messages in the library's own queue
    unsigned _clears = 0;          // how often that queue has been emptied
    char* _spentTopic = nullptr;   // handed on; the library is about to forget them
    MQTTClient_message* _spent = nullptr;
    int _callbacks = 0;           // in progress, or on their way back
    int _heldBack = 0;            // how many end the session: no message is handed out meanwhile
    bool _lostElsewhere = false;  // the session ended on another thread than the connecting one
    bool _lossTold = false;       // since connect() began
    std::thread::id _connecting;
    std::chrono::steady_clock::time_point _unsureSince;
};

}  // namespace kel
