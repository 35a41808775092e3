// Connection.cpp - one handle of the MQTT library and everything that hangs on it.
//
//   state                    touched by                                        under
//   handle, ticket           everybody; constant from create() to the end      -
//   window, gathering        publishers, the receive thread                    their own locks
//   events, arrived, spent,  the receive thread, whoever ends a session,       _mutex
//   callbacks, connecting    connect(), close()
//
//   connect, (un)subscribe   one at a time                                     _answerMutex
//
//   lock order: _answerMutex, the library's own, _mutex, the window's, the dispatcher's; the
//   gathering's alone. Nothing calls into the library with one of the last four held.
//
// The library's threads are one receive thread for the whole process (msgarrvd without its lock;
// delivered with it) and one short-lived for each lost session (connlost, while another thread
// holds the lock and waits for it). No exception may leave any of them.
//
// When a session ends, on whichever thread that is found out, the library frees the messages of its
// queue, the one that a callback holds just now included. It forgets a message only after the
// callback has returned and it has taken its own lock again; and it destroys a handle without a
// look at callbacks in progress. So that no message is touched or freed at the wrong moment, a
// handle is given a message store of our own, which stores nothing but is called with the library's
// lock held:
//   put "q-..."     a message enters the queue: it is copied here. It is being acknowledged, as is
//   put "r-..."     one at QoS 2 that is not complete yet.
//   remove "q-..."  the receive thread is back from the callback: the message is freed here.
//   clear, close    the queue is about to be emptied: the library frees what is in it.
//   put "s-..."     a message of a publisher goes out, and this is its token.
// A session that is ended here is ended while no callback is under way. What this leaves: where
// the library ends one by itself, a receive thread that finds the queue emptied between its
// callback and its lock reads the number of the freed entry once more (the result is not used); and
// where a queue has been emptied with a message in it, the receive thread may be anywhere near the
// callback. The handle is destroyed 1 s later then, a last resort that nobody waits for; else as
// soon as no call is in it.

#include "Connection.h"

#include <MQTTClientPersistence.h>
#include <Poco/Format.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "../log/UnitLog.h"
#include "../net/ServerUri.h"
#include "../platform/Platform.h"
#include "../process/NeverDestroyed.h"
#include "BrokerHost.h"
#include "ConnectTurn.h"
#include "Dispatcher.h"
#include "Messaging.h"
#include "ReceiveThread.h"
#include "Topics.h"

namespace kel {

namespace {

using Clock = std::chrono::steady_clock;
using Poco::format;

constexpr UnitLog log("src/common/MqttClient++");

constexpr int kDisconnectTimeoutMs = 2000;
constexpr auto kUnsure = std::chrono::seconds(1);
constexpr auto kLookAgain = std::chrono::milliseconds(100);
constexpr auto kPatienceWithCallback = std::chrono::seconds(2);
constexpr auto kPatienceWithPort = std::chrono::seconds(3);
constexpr auto kPatienceAfterStop = std::chrono::seconds(3);

// What msgarrvd tells the library.
constexpr int kMessageTaken = 1;
constexpr int kMessageLeft = 0;

thread_local bool inDeliveryCallback = false;
thread_local Connection* beingCreated = nullptr;

// 0, or the library's code for a message that it would send although no broker accepts it.
int checkMessage(const std::string& payload, const std::string& topic, int qos) {
    constexpr std::size_t kLargestPacket = 268435455;
    constexpr std::size_t kHeaders = 16;
    if (qos < 0 || qos > 2) return MQTTCLIENT_BAD_QOS;
    if (!topics::isValidTopic(topic)) return MQTTCLIENT_FAILURE;
    const bool fits = payload.size() + topic.size() + kHeaders <= kLargestPacket;
    return fits ? MQTTCLIENT_SUCCESS : MQTTCLIENT_FAILURE;
}

// Where only a stop ends a wait.
bool libraryStopped() {
    Messaging* const running = Messaging::running();
    return !running || running->stopped();
}

}  // namespace

// Callbacks get a ticket instead of a pointer, so that one that comes late finds nothing.
struct Connection::Table {
    static Table& instance() {
        static NeverDestroyed<Table> table;
        return *table;
    }

    void* add(std::shared_ptr<Connection> connection) {
        const std::lock_guard<std::mutex> lock(mutex);
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the MQTT library only hands it back.
        void* const ticket = reinterpret_cast<void*>(++last);
        connections[ticket] = std::move(connection);
        return ticket;
    }

    std::shared_ptr<Connection> find(void* ticket) {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto found = connections.find(ticket);
        return found == connections.end() ? nullptr : found->second;
    }

    void remove(void* ticket) {
        std::shared_ptr<Connection> removed;  // destroyed without the lock
        const std::lock_guard<std::mutex> lock(mutex);
        const auto found = connections.find(ticket);
        if (found == connections.end()) return;
        removed = std::move(found->second);
        connections.erase(found);
    }

    std::mutex mutex;
    // Guarded by mutex.
    std::uintptr_t last = 0;
    std::unordered_map<void*, std::shared_ptr<Connection>> connections;
};

// A call into the library. The handle is not destroyed meanwhile.
class Connection::Call {
public:
    explicit Call(Connection& connection) : _connection(connection) {
        ++_connection._calls;
        _allowed = !_connection._closed;
    }
    ~Call() { --_connection._calls; }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    explicit operator bool() const { return _allowed; }

private:
    Connection& _connection;
    bool _allowed;
};

namespace {

// The message that the calling thread is just publishing.
struct Outgoing {
    void* connection;
    unsigned session;
    const std::shared_ptr<Receipt>* receipt;
};
thread_local Outgoing outgoing{};

}  // namespace

// What the library calls.
struct Connection::Hooks {
    static void connlost(void* context, char* cause) {
        log.error("connection lost");
        if (!context) {
            log.error("context is null");
            return;
        }
        logExceptions(log, [&] {
            const auto connection = Table::instance().find(context);
            if (connection) connection->lost(cause ? cause : "");
        });
    }

    static int msgarrvd(void* context, char* topic, int /*length*/, MQTTClient_message* message) {
        if (!context) {
            log.error("context is null");
            MQTTClient_freeMessage(&message);
            MQTTClient_free(topic);
            return kMessageTaken;
        }
        const auto connection = Table::instance().find(context);
        return connection ? connection->messageArrived(topic, message) : kMessageLeft;
    }

    static void delivered(void* context, MQTTClient_deliveryToken token) {
        if (!context) {
            log.error("context is null");
            return;
        }
        inDeliveryCallback = true;
        logExceptions(log, [&] {
            const auto connection = Table::instance().find(context);
            if (connection) connection->delivered(token);
        });
        inDeliveryCallback = false;
    }

    static void brokerDisconnected(void*, MQTTProperties*, enum MQTTReasonCodes reason) {
        log.error("disconnect, code=" + std::to_string(static_cast<int>(reason)));
    }

    // The message store. Its handle is the connection, which lives longer than the library's.

    static int open(void** store, const char*, const char*, void*) {
        *store = beingCreated;
        return 0;
    }

    static int put(void* store, char* key, int count, char* buffers[], int lengths[]) {
        auto& connection = *static_cast<Connection*>(store);
        const std::string_view name(key);
        if (name.starts_with("r")) {
            connection._gathering.end();
        } else if (name.starts_with("q")) {
            Message message = copyOf(count, buffers, lengths);
            if (message.qos > 0) connection._gathering.end();
            connection.queued(std::move(message));
        } else if (name.starts_with("s-") && outgoing.connection == &connection) {
            // Only the first time; the library's retry comes here too, on its own thread.
            connection._window.sent(outgoing.session, std::atoi(key + 2), *outgoing.receipt);
            outgoing.connection = nullptr;
        }
        return 0;
    }

    // Without a payload if memory is short.
    static Message copyOf(int count, char* buffers[], int lengths[]) {
        constexpr int kPayload = 1;
        constexpr int kQos = 2;
        constexpr int kTopic = 6;
        Message message;
        logExceptions(log, [&] {
            if (count <= kTopic) return;
            message.topic = buffers[kTopic];
            message.length = static_cast<std::size_t>(lengths[kPayload]);
            std::memcpy(&message.qos, buffers[kQos], sizeof message.qos);
            message.payload = Message::copyOf(buffers[kPayload], message.length);
        });
        return message;
    }

    static int remove(void* store, char* key) {
        if (key[0] == 'q') static_cast<Connection*>(store)->unqueued();
        return 0;
    }

    static int clear(void* store) {
        static_cast<Connection*>(store)->cleared();
        return 0;
    }

    static int keys(void*, char*** names, int* count) {
        *names = nullptr;
        *count = 0;
        return 0;
    }

    static int get(void*, char*, char**, int*) { return MQTTCLIENT_PERSISTENCE_ERROR; }
    static int contains(void*, char*) { return MQTTCLIENT_PERSISTENCE_ERROR; }

    // The library insists on a context.
    static MQTTClient_persistence* store() {
        static MQTTClient_persistence functions = {
            &functions, open, clear, put, get, remove, keys, clear, contains,
        };
        return &functions;
    }
};

// ---- The handle ---------------------------------------------------------------------------------

std::shared_ptr<Connection> Connection::create(const ConnectOptions& options, int& rc) {
    std::shared_ptr<Connection> connection(new Connection);
    rc = MQTTCLIENT_FAILURE;
    if (!inDeliveryCallback) {
        ReceiveThread::prepare();
        beingCreated = connection.get();
        rc = MQTTClient_create(&connection->_handle, options.address.c_str(),
                               options.clientId.c_str(), MQTTCLIENT_PERSISTENCE_USER,
                               Hooks::store());
        beingCreated = nullptr;
    }
    if (rc != 0) {
        log.error(format("Failed to create mqtt client, return code %d", rc));
        return {};
    }
    log.information("Success to create mqtt client");
    connection->_ticket = Table::instance().add(connection);
    connection->setCallbacks();
    return connection;
}

void Connection::setCallbacks() {
    int rc = MQTTClient_setCallbacks(_handle, _ticket, Hooks::connlost, Hooks::msgarrvd,
                                     Hooks::delivered);
    if (rc != 0) log.error(format("Failed to set callbacks, return code %d", rc));
    rc = MQTTClient_setDisconnected(_handle, _ticket, Hooks::brokerDisconnected);
    if (rc != 0) log.error(format("Failed to set disconnect callbacks, return code %d", rc));
}

Connection::~Connection() = default;

void Connection::close() {
    if (_closed.exchange(true)) return;
    silence();
    if (!inDeliveryCallback) endLastSession();
    Messaging* const running = Messaging::running();
    const bool begun = running && running->inBackground([connection = shared_from_this()] {
        connection->destroyWhenUnused();
    });
    if (!begun && !inDeliveryCallback) destroyWhenUnused();
}

void Connection::silence() {
    _window.close();
    _window.abandon();
    _up = false;
    _lossUntold = false;
    const std::lock_guard<std::mutex> lock(_mutex);
    _events.reset();
}

void Connection::tellSilentLosses() {
    std::vector<std::shared_ptr<Connection>> all;
    {
        Table& table = Table::instance();
        const std::lock_guard<std::mutex> lock(table.mutex);
        for (const auto& [ticket, connection] : table.connections) all.push_back(connection);
    }
    for (const auto& connection : all) connection->tellIfSilentlyLost();
}

void Connection::tellIfSilentlyLost() {
    const bool seenBefore = std::exchange(_seenUntold, _lossUntold);
    if (seenBefore && _seenUntold) Hooks::connlost(_ticket, nullptr);
}

void Connection::silenceAll() {
    Table& table = Table::instance();
    const std::lock_guard<std::mutex> lock(table.mutex);
    for (const auto& [ticket, connection] : table.connections) connection->silence();
}

// While the process ends, or after a stop, a handle that is in use for long is left as it is.
void Connection::destroyWhenUnused() {
    const auto begin = Clock::now();
    endLastSession();
    std::unique_lock<std::mutex> lock(_mutex);
    while (_calls > 0 || _callbacks > 0 || Clock::now() < _unsureSince + kUnsure) {
        if (libraryStopped() && Clock::now() > begin + kPatienceAfterStop) return;
        _returned.wait_for(lock, kLookAgain);
    }
    lock.unlock();
    endLastSession();  // an attempt that was in progress may have made one
    if (const ConnectTurn turn(0, libraryStopped); turn) destroyHandle();
}

void Connection::endLastSession() {
    const int rc = endSession();
    if (rc != 0) log.error(format("Failed to disconnect, return code %d", rc));
}

void Connection::destroyHandle() {
    MQTTClient_destroy(&_handle);
    Table::instance().remove(_ticket);
}

// ---- Sessions -----------------------------------------------------------------------------------

int Connection::connect(const ConnectOptions& options, std::weak_ptr<ConnectionEvents> events) {
    const Call call(*this);
    if (!call) return MQTTCLIENT_DISCONNECTED;
    // A second connect on a connected handle would leave the first connection's socket behind.
    endSession();
    _window.forget();
    if (!ReceiveThread::ensure(libraryStopped)) return MQTTCLIENT_FAILURE;
    LibraryOptions form(options);
    std::optional<std::uint16_t> port;  // unknown where the library reads the address differently
    std::vector<platform::TcpConnection> others;
    logExceptions(log, [&] {
        const std::uint16_t named = portOfServerUri(options.address);
        others = platform::tcpConnectionsTo(named);
        port = named;
    });
    const std::lock_guard<std::mutex> answer(_answerMutex);
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _events = std::move(events);
        _connecting = std::this_thread::get_id();
        _lostElsewhere = false;
        _lossTold = false;
    }
    const int rc = tryVersions(*form.get(), options.address);
    if (rc == 0 && port) _gathering.begin(*port, others);
    const std::lock_guard<std::mutex> lock(_mutex);
    _connecting = {};
    if (rc == 0 && !_lostElsewhere && !_closed) {
        _window.open();
        _up = true;
    }
    // The library does not tell of a session that ended before it had counted it as made.
    if (rc == 0 && _lostElsewhere && !_lossTold) _lossUntold = true;
    return rc;
}

// MQTT 3.1.1, else 3.1. The library's default does the same, but with the time-out for each.
int Connection::tryVersions(MQTTClient_connectOptions& form, const std::string& address) {
    if (platform::kRefusedConnectIsSlow && brokerPortRefuses(address, kPatienceWithPort)) {
        return MQTTCLIENT_FAILURE;
    }
    const ReceiveThread::Awake awake;
    const auto deadline = Clock::now() + std::chrono::seconds(form.connectTimeout);
    form.MQTTVersion = MQTTVERSION_3_1_1;
    int rc = MQTTClient_connect(_handle, &form);
    const auto left = std::chrono::floor<std::chrono::seconds>(deadline - Clock::now());
    if (rc != 0 && left.count() > 0) {
        form.MQTTVersion = MQTTVERSION_3_1;
        form.connectTimeout = static_cast<int>(left.count());
        rc = MQTTClient_connect(_handle, &form);
    }
    return rc;
}

void Connection::awaitAnswers() {
    const std::lock_guard<std::mutex> answer(_answerMutex);
}

int Connection::endSession() {
    _up = false;
    _lossUntold = false;
    _window.close();
    _gathering.end();
    if (!MQTTClient_isConnected(_handle)) return 0;
    const Dispatcher::WaitsForBroker wait;
    holdBack();
    const int rc = MQTTClient_disconnect(_handle, kDisconnectTimeoutMs);
    const std::lock_guard<std::mutex> lock(_mutex);
    --_heldBack;
    return rc;
}

// The library reads the message that it has handed over once more after the callback; this waits
// until it has. What is queued from now on is handed out when the session is over.
void Connection::holdBack() {
    std::unique_lock<std::mutex> lock(_mutex);
    ++_heldBack;
    _returned.wait_for(lock, kPatienceWithCallback, [this] { return _callbacks == 0; });
}

int Connection::disconnect() {
    const Call call(*this);
    if (!call) return MQTTCLIENT_DISCONNECTED;
    return endSession();
}

// ---- Calls in a session -------------------------------------------------------------------------

int Connection::publishAndWait(const std::string& payload, const std::string& topic, int qos,
                               int retained, Receipt::Clock::time_point deadline,
                               Receipt::Fate& fate) {
    const auto receipt = std::make_shared<Receipt>();
    const int rc = publish(payload, topic, qos, retained, receipt, deadline);
    if (qos == 0) receipt->settle(Receipt::Fate::kConfirmed);
    if (rc != 0) return rc;
    const Dispatcher::WaitsForBroker wait;
    fate = receipt->await(deadline, wait.giveUp());
    return rc;
}

int Connection::publish(const std::string& payload, const std::string& topic, int qos, int retained,
                        const std::shared_ptr<Receipt>& receipt,
                        Receipt::Clock::time_point deadline) {
    // The library would wait for its receive thread in there.
    if (inDeliveryCallback) return MQTTCLIENT_MAX_MESSAGES_INFLIGHT;
    const int unfit = checkMessage(payload, topic, qos);
    if (unfit != 0) return unfit;
    MQTTClient_message message = MQTTClient_message_initializer;
    message.payloadlen = static_cast<int>(payload.size());
    message.payload = const_cast<char*>(payload.data());  // the library only reads it
    message.qos = qos;
    message.retained = retained;
    const Call call(*this);
    if (!call) return MQTTCLIENT_DISCONNECTED;
    const bool noneBeside = qos > 0 || _window.pace();
    if (noneBeside && !receipt) {
        _gathering.count();
    } else {
        _gathering.end();
    }
    if (qos == 0) return MQTTClient_publishMessage(_handle, topic.c_str(), &message, nullptr);
    const Dispatcher::WaitsForBroker wait;
    InFlightWindow::GiveUp giveUp = wait.giveUp();
    if (receipt) {
        giveUp = [&] { return Clock::now() > deadline || (wait.giveUp() && wait.giveUp()()); };
    }
    const auto session = _window.take(giveUp);
    if (!session) {
        return _window.isOpen() ? MQTTCLIENT_MAX_MESSAGES_INFLIGHT : MQTTCLIENT_DISCONNECTED;
    }
    if (receipt) _gathering.end();  // which another publisher may have begun meanwhile
    outgoing = {this, *session, &receipt};
    // Asked for the token, the library reads it after the acknowledgement may have freed it.
    const int rc = MQTTClient_publishMessage(_handle, topic.c_str(), &message, nullptr);
    const bool sent = outgoing.connection == nullptr;
    outgoing.connection = nullptr;
    if (!sent) _window.giveBack(*session);
    return rc;
}

int Connection::subscribe(const std::vector<std::string>& filters, std::vector<int>& qos) {
    if (inDeliveryCallback) return MQTTCLIENT_FAILURE;
    const Call call(*this);
    if (!call) return MQTTCLIENT_DISCONNECTED;
    std::vector<char*> names;
    names.reserve(filters.size());
    for (const std::string& filter : filters) names.push_back(const_cast<char*>(filter.c_str()));
    _gathering.end();
    const Dispatcher::WaitsForBroker wait;
    const std::lock_guard<std::mutex> answer(_answerMutex);
    return MQTTClient_subscribeMany(_handle, static_cast<int>(names.size()), names.data(),
                                    qos.data());
}

int Connection::unsubscribe(const std::string& filter) {
    if (inDeliveryCallback) return MQTTCLIENT_FAILURE;
    const Call call(*this);
    if (!call) return MQTTCLIENT_DISCONNECTED;
    _gathering.end();
    const Dispatcher::WaitsForBroker wait;
    const std::lock_guard<std::mutex> answer(_answerMutex);
    return MQTTClient_unsubscribe(_handle, filter.c_str());
}

bool Connection::libraryHoldsItsLock() {
    return inDeliveryCallback;
}

// ---- On the library's threads -------------------------------------------------------------------

std::shared_ptr<ConnectionEvents> Connection::events() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _events.lock();
}

void Connection::queued(Message message) {
    const std::lock_guard<std::mutex> lock(_mutex);
    ++_queued;
    _arrived.push_back(std::move(message));
}

int Connection::messageArrived(char* topic, MQTTClient_message* message) {
    std::unique_lock<std::mutex> lock(_mutex);
    ++_callbacks;
    int outcome = kMessageLeft;
    if (!_arrived.empty() && _heldBack == 0) {
        Message copy = std::move(_arrived.front());
        _arrived.pop_front();
        const unsigned clears = _clears;
        const auto events = _events.lock();
        lock.unlock();
        if (events && copy.payload) {
            logExceptions(log, [&] { events->messageArrived(std::move(copy), true); });
        }
        lock.lock();
        if (_clears == clears) outcome = kMessageTaken;
    }
    if (outcome == kMessageTaken) {
        _spentTopic = topic;
        _spent = message;
    } else {
        _unsureSince = Clock::now();
        --_callbacks;
        _returned.notify_all();
    }
    return outcome;
}

void Connection::unqueued() {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (_queued > 0) --_queued;
    if (_spent) {
        MQTTClient_freeMessage(&_spent);
        MQTTClient_free(std::exchange(_spentTopic, nullptr));
    }
    if (_callbacks > 0) --_callbacks;
    _returned.notify_all();
}

// What has arrived but has not been handed on is acknowledged already, so it is handed on now.
void Connection::cleared() {
    std::deque<Message> left;
    std::shared_ptr<ConnectionEvents> events;
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        const bool byConnect = std::this_thread::get_id() == _connecting;
        _lostElsewhere = !byConnect;
        if (_up.exchange(false)) _lossUntold = !byConnect;
        ++_clears;
        if (_queued > 0) _unsureSince = Clock::now();
        _queued = 0;
        _spent = nullptr;
        _spentTopic = nullptr;
        left.swap(_arrived);
        events = _events.lock();
    }
    _window.close();
    _window.abandon();
    for (Message& message : left) {
        if (!events || !message.payload) continue;
        logExceptions(log, [&] { events->messageArrived(std::move(message), false); });
    }
}

void Connection::lost(const std::string& cause) {
    _window.close();
    _window.abandon();
    std::shared_ptr<ConnectionEvents> told;
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _lossUntold = false;
        _lostElsewhere = true;
        _lossTold = true;
        _up = false;
        told = _events.lock();
    }
    if (told) told->sessionLost(cause);
}

void Connection::delivered(int token) {
    if (!_window.delivered(token)) return;
    ++messagingCounters().confirmed;
    if (const auto told = events()) told->messageDelivered(token);
}

}  // namespace kel
