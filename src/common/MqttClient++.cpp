// MqttClient++.cpp - policy: when to connect, retry and reconnect, what to subscribe, whom to ask.
//
//   state                       touched by                              under
//   address, id, login          everybody; constant                     -
//   handle made and in use      connects, reconnections, Disconnect()   _connectMutex, across waits
//   _connection, callbacks      everybody                               _mutex, never across a call
//   _subscriptions, _connected  everybody                               own locking
//   _jobs                       subscribers, the job of this client     _jobsMutex
//
// Publishers need only _mutex, for a moment. Connects, their pauses, reconnections and subscribes
// run on background threads, which hold a client only weakly between their steps; every wait of
// theirs ends when the library is stopped. What the MQTT library calls (messageArrived,
// messageDelivered, sessionLost) takes _mutex alone.

#include "MqttClient++.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "Utils.h"
#include "internal/log/UnitLog.h"
#include "internal/mqtt/BrokerHost.h"
#include "internal/mqtt/ConnectTurn.h"
#include "internal/mqtt/Connection.h"
#include "internal/mqtt/Delivery.h"
#include "internal/mqtt/Messaging.h"
#include "internal/mqtt/Subscriptions.h"
#include "internal/mqtt/Topics.h"
#include "internal/net/ServerUri.h"
#include "internal/process/LibraryStop.h"

namespace kel {

namespace {

using namespace std::chrono_literals;
using Poco::format;

constexpr UnitLog log("src/common/MqttClient++");

constexpr auto kPauseBeforeCreate = 1000ms;
constexpr auto kPauseBeforeRetry = 3000ms;
constexpr auto kPauseBetweenPings = 2000ms;
constexpr auto kLongest = 24h;  // a wait that is longer could exceed the clock's range

// Of one packet that subscribes; brokers take more, but answer later.
constexpr std::size_t kMostFilters = 1000;
constexpr std::size_t kMostBytes = 60000;

constexpr int kRefusedByBroker = 128;

void logSubscribed(const std::string& topic, int rc) {
    if (rc == 0) {
        log.information(format("Success to subscribe topic %s, return code %d", topic, rc));
    } else {
        log.error(format("Failed to subscribe topic %s, return code %d", topic, rc));
    }
}

// Memory may be short for a while; a client must not stay away for good because of that.
template <typename Step>
void untilItEnds(Messaging& messaging, Step&& step) {
    while (!logExceptions(log, step) && messaging.pause(kPauseBetweenPings)) continue;
}

}  // namespace

struct MqttClient::Impl : ConnectionEvents, std::enable_shared_from_this<MqttClient::Impl> {
    using Weak = std::weak_ptr<Impl>;
    using Handler = Subscriptions::Handler;

    // A subscription to make, or, with `restored`, all those up to that mark to make again.
    struct Job {
        Handler handler;
        std::string filter;
        int qos = 0;
        std::optional<Subscriptions::Mark> restored;
    };

    explicit Impl(ConnectOptions connectOptions) : options(std::move(connectOptions)) {}

    // Connecting
    void create(Messaging& messaging);
    bool recreate(Messaging& messaging);
    void startConnecting(Messaging& messaging);
    static void connectTask(Messaging& messaging, const Weak& weak, bool again);
    std::optional<int> connectOnce(Messaging& messaging, bool again);
    bool hasSession();
    int attempt();
    bool endIfStopped(Messaging& messaging);
    void sayWhy(int rc);
    void sessionBegun();
    bool askAfterConnect(int rc);
    void disconnect();
    void release();
    std::shared_ptr<Connection> connection();
    void offLibraryThread(std::function<void(Impl&)> call);

    // Loss
    static void reconnect(Messaging& messaging, const Weak& weak, unsigned loss,
                          const std::string& cause);
    static bool askAfterLoss(const Weak& weak, const std::string& cause);
    static bool awaitBrokerHost(Messaging& messaging, const Weak& weak, unsigned loss);

    // Subscriptions
    void addJob(Messaging& messaging, Job job);
    static void runJobs(const Weak& weak);
    std::vector<Job> nextJobs();
    void doJobs(const std::vector<Job>& jobs);
    void subscribeAll(const std::vector<std::string>& filters, const std::vector<int>& qos);
    void subscribePacket(Connection& to, const std::vector<std::string>& filters,
                         std::vector<int> qos);
    void unsubscribe(const std::string& topic);
    bool unsubscribeAtBroker(const std::string& topic);

    bool publish(const std::string& topic, int qos, const std::function<int(Connection&)>& call);

    // Told by the connection
    void messageArrived(Message message, bool mayWait) override;
    void messageDelivered(int token) override;
    void sessionLost(const std::string& cause) override;

    template <typename Callback>
    Callback copyOf(const Callback& member) {
        const std::lock_guard<std::mutex> lock(_mutex);
        return member;
    }

    template <typename Callback>
    void set(Callback& member, Callback callback) {
        const std::lock_guard<std::mutex> lock(_mutex);
        member.swap(callback);
    }

    const ConnectOptions options;

    std::mutex _connectMutex;
    // Guarded by _connectMutex.
    unsigned _failures = 1;    // in a row; never having been connected counts as one
    unsigned _lossesSeen = 0;  // when the last session began

    std::mutex _mutex;
    // Guarded by _mutex; copied out before they are used.
    std::shared_ptr<Connection> _connection;
    int _createResult = 0;
    std::function<bool(int)> _connect_callback;
    std::function<bool(std::string)> _connection_lost_callback;
    std::function<void(int)> _delivery_complete_callback;
    std::function<void(Poco::JSON::Object::Ptr)> _message_receive_tailor_callback;
    std::function<void(std::string&)> _message_push_splice_callback;

    std::mutex _jobsMutex;
    // Guarded by _jobsMutex.
    std::deque<Job> _jobs;
    bool _jobsRun = false;

    // Own locking.
    const std::shared_ptr<Subscriptions> _subscriptions = std::make_shared<Subscriptions>();
    std::atomic<bool> _released{false};
    std::atomic<bool> _vehicle_conn{false};
    std::atomic<bool> _connected{false};
    std::atomic<unsigned> _losses{0};
    std::atomic<Subscriptions::Mark> _restored{0};
};

std::shared_ptr<MqttClient> MqttClient::createInstance(std::string address, std::string clientId,
                                                       std::string username, std::string password) {
    return std::shared_ptr<MqttClient>(new MqttClient(std::move(address), std::move(clientId),
                                                      std::move(username), std::move(password)));
}

std::shared_ptr<MqttClient> MqttClient::createInstance(std::string address, std::string clientId,
                                                       std::string username, std::string password,
                                                       MqttOptions options) {
    return std::shared_ptr<MqttClient>(new MqttClient(std::move(address), std::move(clientId),
                                                      std::move(username), std::move(password),
                                                      std::move(options)));
}

MqttClient::MqttClient(std::string address, std::string clientId, std::string username,
                       std::string password)
    : MqttClient(std::move(address), std::move(clientId), std::move(username), std::move(password),
                 MqttOptions()) {}

MqttClient::MqttClient(std::string address, std::string clientId, std::string username,
                       std::string password, MqttOptions options)
    : _impl(std::make_shared<Impl>(ConnectOptions{.address = std::move(address),
                                                  .clientId = std::move(clientId),
                                                  .username = std::move(username),
                                                  .password = std::move(password),
                                                  .further = checked(std::move(options))})) {
    _impl->create(Messaging::instance());
}

MqttClient::~MqttClient() {
    _impl->release();
}

// ---- Connection ---------------------------------------------------------------------------------

std::shared_ptr<Connection> MqttClient::Impl::connection() {
    return copyOf(_connection);
}

void MqttClient::Impl::create(Messaging& messaging) {
    messaging.pause(kPauseBeforeCreate);
    int rc = 0;
    std::shared_ptr<Connection> made;
    const bool tried = logExceptions(log, [&] { made = Connection::create(options, rc); });
    if (!tried) rc = MQTTCLIENT_FAILURE;
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _createResult = rc;
        if (!_released) _connection.swap(made);
    }
    if (made) made->close();
}

// False if that is not wanted any more: the client is released, or another connect has brought a
// session up meanwhile.
bool MqttClient::Impl::recreate(Messaging& messaging) {
    const std::lock_guard<std::mutex> lock(_connectMutex);
    if (_released || hasSession()) return false;
    if (const std::shared_ptr<Connection> old = connection()) {
        set(_connection, {});
        old->close();
    }
    create(messaging);
    return !_released;
}

bool MqttClient::Impl::hasSession() {
    const std::shared_ptr<Connection> made = connection();
    return _connected && made && made->isUp();
}

void MqttClient::Impl::release() {
    std::shared_ptr<Connection> last;
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _released = true;
        last.swap(_connection);
    }
    if (last) last->close();
    _subscriptions->clear();
}

void MqttClient::Connect(std::function<bool(int)> onConnectResult,
                         std::function<bool(std::string)> onConnectionLost) {
    _impl->set(_impl->_connect_callback, std::move(onConnectResult));
    _impl->set(_impl->_connection_lost_callback, std::move(onConnectionLost));
    _impl->startConnecting(Messaging::instance());
}

void MqttClient::Impl::startConnecting(Messaging& messaging) {
    messaging.inBackground([&messaging, weak = weak_from_this(), again = false]() mutable {
        untilItEnds(messaging, [&] { connectTask(messaging, weak, std::exchange(again, true)); });
    });
}

void MqttClient::Impl::connectTask(Messaging& messaging, const Weak& weak, bool again) {
    for (std::shared_ptr<Impl> client = weak.lock(); client; client = weak.lock(), again = true) {
        std::optional<int> rc = MQTTCLIENT_FAILURE;
        logExceptions(log, [&] { rc = client->connectOnce(messaging, again); });
        if (!rc) return;
        if (*rc != 0) client->sayWhy(*rc);
        const bool wanted = client->askAfterConnect(*rc);
        if (*rc == 0) {
            untilItEnds(messaging, [&] {
                client->addJob(messaging, {{}, {}, 0, client->_restored});
            });
            return;
        }
        client.reset();
        if (!wanted || !messaging.pause(kPauseBeforeRetry)) return;
        client = weak.lock();
        if (!client || !client->recreate(messaging)) return;
    }
}

// Empty if the client is released or the library is stopped first, or if an attempt that is made
// again finds a session that another connect has brought up.
std::optional<int> MqttClient::Impl::connectOnce(Messaging& messaging, bool again) {
    const auto giveUp = [&] { return _released || messaging.stopped(); };
    unsigned rank = 0;
    {
        const std::lock_guard<std::mutex> lock(_connectMutex);
        rank = _failures;
    }
    // Not with the turn, for which the other clients wait.
    if (const std::shared_ptr<Connection> made = connection()) made->awaitAnswers();
    const ConnectTurn turn(rank, giveUp);
    if (!turn) return {};
    const std::lock_guard<std::mutex> lock(_connectMutex);
    if (giveUp() || (again && hasSession())) return {};
    const int rc = attempt();
    if (rc == 0 && endIfStopped(messaging)) return {};
    _failures = rc == 0 ? 0 : _failures + 1;
    if (rc == 0) {
        sessionBegun();
    } else {
        log.error(format("Failed to connect, return code %d", rc));
    }
    return rc;
}

// Nobody would hand out what arrives in a session that is made during a stop.
bool MqttClient::Impl::endIfStopped(Messaging& messaging) {
    if (!messaging.stopped()) return false;
    if (const std::shared_ptr<Connection> made = connection()) made->disconnect();
    return true;
}

// Without a lock: this may take a while.
void MqttClient::Impl::sayWhy(int rc) {
    log.information(format("no connection to %s: %s", withoutCredentials(options.address),
                           connectFailureInWords(options, rc)));
}

int MqttClient::Impl::attempt() {
    const std::shared_ptr<Connection> made = connection();
    return made ? made->connect(options, weak_from_this()) : copyOf(_createResult);
}

// Before the host is told, so that it can publish at once.
void MqttClient::Impl::sessionBegun() {
    const std::shared_ptr<Connection> made = connection();
    const unsigned losses = _losses;
    if (std::exchange(_lossesSeen, losses) != losses) ++messagingCounters().reconnections;
    // What is set from now on finds a session and subscribes by itself.
    _restored = _subscriptions->mark();
    _connected = true;
    // The session may have been lost already; sessionLost() has then cleared the flag too early.
    if (!made || !made->isUp()) _connected = false;
}

bool MqttClient::Impl::askAfterConnect(int rc) {
    const auto callback = copyOf(_connect_callback);
    bool again = false;
    if (callback) logExceptions(log, [&] { again = callback(rc); });
    return again;
}

// In the delivery callback the library holds its lock.
void MqttClient::Impl::offLibraryThread(std::function<void(Impl&)> call) {
    if (!Connection::libraryHoldsItsLock()) {
        call(*this);
        return;
    }
    Messaging::instance().inBackground([weak = weak_from_this(), call = std::move(call)] {
        if (const auto client = weak.lock()) call(*client);
    });
}

void MqttClient::Disconnect() {
    _impl->offLibraryThread([](Impl& client) { client.disconnect(); });
}

void MqttClient::Impl::disconnect() {
    const std::lock_guard<std::mutex> lock(_connectMutex);
    const std::shared_ptr<Connection> made = connection();
    if (!made) {
        log.error("Failed to disconnect, _mqtt_client is null");
        return;
    }
    const int rc = made->disconnect();
    const char* outcome = rc == 0 ? "Success" : "Failed";
    log.error(format("%s to disconnect, return code %d", std::string(outcome), rc));
}

// ---- Loss and reconnection ----------------------------------------------------------------------

void MqttClient::Impl::sessionLost(const std::string& cause) {
    _connected = false;
    const unsigned loss = ++_losses;
    Messaging* const messaging = Messaging::running();
    if (!messaging || !copyOf(_connection_lost_callback)) return;
    messaging->inBackground([messaging, weak = weak_from_this(), loss, cause] {
        untilItEnds(*messaging, [&] { reconnect(*messaging, weak, loss, cause); });
    });
}

void MqttClient::Impl::reconnect(Messaging& messaging, const Weak& weak, unsigned loss,
                                 const std::string& cause) {
    if (!askAfterLoss(weak, cause)) return;
    log.information("start reconnect mqtt.");
    if (!awaitBrokerHost(messaging, weak, loss)) return;
    std::shared_ptr<Impl> client = weak.lock();
    if (!client || !client->recreate(messaging)) return;
    client.reset();
    connectTask(messaging, weak, true);
}

bool MqttClient::Impl::askAfterLoss(const Weak& weak, const std::string& cause) {
    const std::shared_ptr<Impl> client = weak.lock();
    if (!client) return false;
    const auto callback = client->copyOf(client->_connection_lost_callback);
    bool again = false;
    if (callback) logExceptions(log, [&] { again = callback(cause); });
    return again;
}

// False if it is not worth waiting any more: the client is gone, the host has connected it by
// itself, a later loss has its own reconnection, or the library is stopped.
bool MqttClient::Impl::awaitBrokerHost(Messaging& messaging, const Weak& weak, unsigned loss) {
    do {
        const std::shared_ptr<Impl> client = weak.lock();
        if (!client || client->_released) return false;
        if (client->_connected || client->_losses != loss) return false;
        if (!client->connection()) return true;
        bool answers = false;
        logExceptions(log, [&] { answers = brokerHostAnswers(client->options.address, pingIp); });
        if (answers) {
            log.information("ping succeed, ip: " + withoutCredentials(client->options.address));
            return true;
        }
    } while (messaging.pause(kPauseBetweenPings));
    return false;
}

// ---- Subscriptions ------------------------------------------------------------------------------

void MqttClient::Subscribe(std::function<void(const Poco::JSON::Object&, std::string)> handler,
                           std::string topic, int qos) {
    auto kept = std::make_shared<SubscribedHandler>(SubscribedHandler{{}, std::move(handler)});
    _impl->addJob(Messaging::instance(), {std::move(kept), std::move(topic), qos, {}});
}

void MqttClient::Subscribe(std::function<void(MQTTClient_message*, std::string)> handler,
                           std::string topic, int qos) {
    Subscriptions::Handler kept;
    if (handler)
        kept = std::make_shared<SubscribedHandler>(SubscribedHandler{std::move(handler), {}});
    _impl->addJob(Messaging::instance(), {std::move(kept), std::move(topic), qos, {}});
}

// The jobs of a client are done one after the other, so that the last subscription of a filter
// wins.
void MqttClient::Impl::addJob(Messaging& messaging, Job job) {
    {
        const std::lock_guard<std::mutex> lock(_jobsMutex);
        _jobs.push_back(std::move(job));
        if (std::exchange(_jobsRun, true)) return;
    }
    bool begun = false;
    logExceptions(
        log, [&] { begun = messaging.inBackground([weak = weak_from_this()] { runJobs(weak); }); });
    if (!begun && !Connection::libraryHoldsItsLock()) runJobs(weak_from_this());
}

void MqttClient::Impl::runJobs(const Weak& weak) {
    for (std::shared_ptr<Impl> client = weak.lock(); client; client = weak.lock()) {
        const std::vector<Job> jobs = client->nextJobs();
        if (jobs.empty()) return;
        logExceptions(log, [&] { client->doJobs(jobs); });
    }
}

// Those that fit into one packet, or one that restores.
std::vector<MqttClient::Impl::Job> MqttClient::Impl::nextJobs() {
    std::vector<Job> jobs;
    std::size_t bytes = 0;
    const std::lock_guard<std::mutex> lock(_jobsMutex);
    while (!_jobs.empty() && jobs.size() < kMostFilters && bytes < kMostBytes) {
        const bool restores = _jobs.front().restored.has_value();
        if (restores && !jobs.empty()) break;
        bytes += _jobs.front().filter.size();
        jobs.push_back(std::move(_jobs.front()));
        _jobs.pop_front();
        if (restores) break;
    }
    if (jobs.empty()) _jobsRun = false;
    return jobs;
}

void MqttClient::Impl::doJobs(const std::vector<Job>& jobs) {
    std::vector<std::string> filters;
    std::vector<int> qos;
    if (jobs.front().restored) {
        filters = _subscriptions->upTo(*jobs.front().restored);
        qos.assign(filters.size(), 0);
    } else {
        for (const Job& job : jobs) {
            if (job.handler) _subscriptions->set(job.filter, job.handler);
            filters.push_back(job.filter);
            qos.push_back(job.qos);
        }
    }
    subscribeAll(filters, qos);
}

void MqttClient::Impl::subscribeAll(const std::vector<std::string>& filters,
                                    const std::vector<int>& qos) {
    const std::shared_ptr<Connection> to = connection();
    std::vector<std::string> packet;
    std::vector<int> packetQos;
    std::size_t bytes = 0;
    const auto send = [&] {
        if (!packet.empty()) subscribePacket(*to, packet, packetQos);
        packet.clear();
        packetQos.clear();
        bytes = 0;
    };
    for (std::size_t i = 0; i < filters.size(); ++i) {
        const std::string& filter = filters[i];
        if (!to) {
            log.error(format("Failed to subscribe topic %s, _mqtt_client is null", filter));
        } else if (!to->isUp()) {
            log.error(
                format("Failed to subscribe topic %s, _mqtt_client is not connected", filter));
        } else if (!topics::isValidFilter(filter) || qos[i] < 0 || qos[i] > 2) {
            logSubscribed(filter,
                          topics::isValidFilter(filter) ? MQTTCLIENT_BAD_QOS : MQTTCLIENT_FAILURE);
        } else {
            if (packet.size() == kMostFilters || bytes > kMostBytes) send();
            packet.push_back(filter);
            packetQos.push_back(qos[i]);
            bytes += filter.size();
        }
    }
    send();
}

void MqttClient::Impl::subscribePacket(Connection& to, const std::vector<std::string>& filters,
                                       std::vector<int> qos) {
    const int rc = to.subscribe(filters, qos);
    for (std::size_t i = 0; i < filters.size(); ++i) {
        const bool refused = rc == 0 && qos[i] == kRefusedByBroker;
        logSubscribed(filters[i], refused ? kRefusedByBroker : rc);
    }
}

void MqttClient::Unsubscribe(std::string topic) {
    _impl->offLibraryThread([topic = std::move(topic)](Impl& client) {
        logExceptions(log, [&] { client.unsubscribe(topic); });
    });
}

void MqttClient::Impl::unsubscribe(const std::string& topic) {
    bool known = true;
    logExceptions(log, [&] { known = unsubscribeAtBroker(topic); });
    if (!known) return;
    if (!_subscriptions->erase(topic)) return;
    log.information(format("--Success to erase topic %s from subscribe map", topic));
}

// False if there is no handle; what the broker answers does not matter.
bool MqttClient::Impl::unsubscribeAtBroker(const std::string& topic) {
    const std::shared_ptr<Connection> from = connection();
    if (!from) {
        log.error(format("Failed to unsubscribe topic=%s, mqtt client is null", topic));
        return false;
    }
    if (!_connected || !from->isUp()) {
        log.information("mqtt is not connected!");
        return true;
    }
    const int rc = topics::isValidFilter(topic) ? from->unsubscribe(topic) : MQTTCLIENT_FAILURE;
    if (rc == 0) {
        log.information(format("Success to unsubscribe topic %s, return code %d", topic, rc));
    } else {
        log.error(format("Failed to unsubscribe topic %s", topic));
    }
    return true;
}

// ---- Publishing ---------------------------------------------------------------------------------

bool MqttClient::PublishMessage(std::string payload, std::string topic, int qos, int retained,
                                int /*token*/) {
    return _impl->publish(
        topic, qos, [&](Connection& to) { return to.publish(payload, topic, qos, retained); });
}

bool MqttClient::PublishAndWait(std::string payload, std::string topic, int qos, int retained,
                                std::chrono::milliseconds deadline) {
    using Fate = Receipt::Fate;
    const auto end =
        Receipt::Clock::now() + std::clamp<std::chrono::milliseconds>(deadline, 0ms, kLongest);
    Fate fate = Fate::kOpen;
    const bool accepted = _impl->publish(topic, qos, [&](Connection& to) {
        return to.publishAndWait(payload, topic, qos, retained, end, fate);
    });
    if (!accepted || fate == Fate::kConfirmed) return accepted;
    log.error(format(fate == Fate::kOpen ? "no confirmation in time for topic %s"
                                         : "connection lost before the confirmation for topic %s",
                     topic));
    return false;
}

bool MqttClient::Impl::publish(const std::string& topic, int qos,
                               const std::function<int(Connection&)>& call) {
    try {
        const std::shared_ptr<Connection> to = connection();
        if (!to) {
            log.error(format("Failed to publish message for topic=%s, mqtt client is null", topic));
        } else if (!_connected) {
            log.error(
                format("Failed to publish message for topic=%s, mqtt is not connected", topic));
        } else {
            const int rc = call(*to);
            if (rc == 0) {
                ++messagingCounters().published[static_cast<std::size_t>(qos)];
                return true;
            }
            log.error(format("Failed to publish message for topic %s, return code %d", topic, rc));
        }
    } catch (const std::exception& exc) {
        log.error("error description: " + exceptionText(exc));
    } catch (...) {
        log.error("error description: unknown error");
    }
    ++messagingCounters().refusedPublishes;
    return false;
}

void MqttClient::Impl::messageDelivered(int token) {
    const auto callback = copyOf(_delivery_complete_callback);
    if (callback) callback(token);
}

// ---- Arrival ------------------------------------------------------------------------------------

void MqttClient::Impl::messageArrived(Message message, bool mayWait) {
    Messaging* const messaging = Messaging::running();
    if (!messaging) return;
    if (message.qos >= 0 && message.qos <= 2) {
        ++messagingCounters().received[static_cast<std::size_t>(message.qos)];
    }
    auto item = std::make_shared<Delivery>(*messaging, _subscriptions, std::move(message));
    if (mayWait) {
        messaging->dispatcher().take(std::move(item));
    } else {
        messaging->dispatcher().push(std::move(item));
    }
}

// ---- Accessors ----------------------------------------------------------------------------------

std::string MqttClient::getstation() {
    if (_impl->options.clientId.empty()) log.error("_client_id is empty");
    return _impl->options.clientId;
}

void MqttClient::SetVehicleConn(bool connected) {
    _impl->_vehicle_conn = connected;
}

void MqttClient::SetDeliveryCompleteCallback(std::function<void(int)> callback) {
    _impl->set(_impl->_delivery_complete_callback, std::move(callback));
}

void MqttClient::setMessageReceiveTailorCallback(
    std::function<void(Poco::JSON::Object::Ptr)> callback) {
    _impl->set(_impl->_message_receive_tailor_callback, std::move(callback));
}

void MqttClient::setMessagePushSpliceCallback(std::function<void(std::string&)> callback) {
    _impl->set(_impl->_message_push_splice_callback, std::move(callback));
}

}  // namespace kel
