// MqttClient++.cpp - one broker connection over the library's synchronous client.
//
// Threads that meet here:
//   callers          the host's; they wait for _client_mutex while a connect is in progress.
//   mqttPool()       connect tasks, subscribe tasks, message handlers, of all clients.
//   helpers()        what would block the library's threads or finds mqttPool() full: reconnections
//                    after a loss, calls made from inside a callback, late destruction of a handle.
//   library threads  one receive thread per process (msgarrvd, delivered) and one short-lived per
//                    lost connection (connlost). While delivered runs, the library holds its global
//                    lock, and while connlost runs its receive thread waits. So nothing on them
//                    takes _client_mutex, calls into the library for the host, or waits; and no
//                    exception may leave them.
//
// Background work holds a client only weakly between its steps, and every wait ends when the
// library is stopped.

#include "MqttClient++.h"

#include <Poco/Dynamic/Var.h>
#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/JSON/Parser.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

#include "ThreadPool.h"
#include "Utils.h"
#include "internal/log/UnitLog.h"
#include "internal/mqtt/BrokerHost.h"
#include "internal/mqtt/CallbackGate.h"
#include "internal/mqtt/ConnectTurn.h"
#include "internal/mqtt/InFlightWindow.h"
#include "internal/mqtt/Topics.h"
#include "internal/process/LibraryStop.h"
#include "internal/process/StopSignal.h"

namespace kel {

namespace {

using namespace std::chrono_literals;
using Poco::format;

constexpr UnitLog log("src/common/MqttClient++");

constexpr int kDisconnectTimeoutMs = 2000;
constexpr auto kPauseBeforeCreate = 1000ms;
constexpr auto kPauseBeforeRetry = 3000ms;
constexpr auto kPauseBetweenPings = 2000ms;
constexpr auto kHandlerPatience = 2000ms;
constexpr auto kUntilConnectShows = 1000ms;
constexpr auto kForever = std::chrono::hours(24 * 365);

// In the delivery callback, from which nothing else of the library may be called.
thread_local bool libraryHoldsItsLock = false;

// What msgarrvd tells the library.
constexpr int kMessageTaken = 1;
constexpr int kMessageLeft = 0;

// All process-wide objects stay alive to the end: callbacks and tasks may come among the static
// destructors.
struct Messaging {
    CallbackGate gate;
    StopSignal stop;
    std::once_flag started;
    std::shared_ptr<ThreadPool> mqttPool;
    std::shared_ptr<ThreadPool> helpers;
};

Messaging& messaging() {
    static auto* instance = new Messaging;
    return *instance;
}

CallbackGate& gate() {
    return messaging().gate;
}

void stopMessaging() {
    gate().close();
    messaging().stop.set();
    messaging().helpers->stop();
    messaging().mqttPool->stop();
}

// The library shuts down with its last handle, also while another thread just makes one. This
// handle, which is never connected, keeps it up.
void keepLibraryUp() {
    MQTTClient keeper = nullptr;
    MQTTClient_create(&keeper, "127.0.0.1", "keeper", MQTTCLIENT_PERSISTENCE_NONE, nullptr);
}

void startMessaging() {
    std::call_once(messaging().started, [] {
        messaging().mqttPool = std::make_shared<ThreadPool>(1, 32, 60, 0);
        messaging().helpers = std::make_shared<ThreadPool>("mqttHelper", 1, 1024, 60, 0);
        onLibraryStop(StopStage::kMessaging, stopMessaging);
        keepLibraryUp();
    });
}

ThreadPool& mqttPool() {
    return *messaging().mqttPool;
}

// The last resort for a task; refused only while the process ends (the pool logs it then).
void runOnHelper(std::function<void()> task) {
    try {
        messaging().helpers->start(std::move(task), "mqttHelper");
    } catch (const std::exception&) {
    }
}

// A connect task that finds the pool full must neither be lost nor block its submitter.
void runConnectInBackground(const std::function<void()>& task) {
    try {
        mqttPool().start(task);
    } catch (const std::exception&) {
        runOnHelper(task);
    }
}

// A connect that has begun shows as one to the library after a moment, so waiting a little is
// enough.
int disconnect(MQTTClient handle) {
    const ConnectTurn turn(kUntilConnectShows);
    return MQTTClient_disconnect(handle, kDisconnectTimeoutMs);
}

void destroyHandle(MQTTClient handle, CallbackGate::Ticket ticket) {
    MQTTClient_destroy(&handle);
    gate().retire(ticket);
}

// Needs no client any more. Without a session there is nothing to disconnect; while another client
// connects, the library would make us wait for that.
void disposeOfHandle(MQTTClient handle, CallbackGate::Ticket ticket) {
    if (MQTTClient_isConnected(handle)) {
        const int rc = disconnect(handle);
        if (rc != 0) log.error(format("Failed to disconnect, return code %d", rc));
        gate().quiesce(ticket, kForever);
    }
    if (const ConnectTurn turn(0ms); turn) {
        destroyHandle(handle, ticket);
    } else {
        runOnHelper([handle, ticket] { destroyHandle(handle, ticket); });
    }
}

MQTTClient_connectOptions connectOptions(const std::string& username, const std::string& password) {
    MQTTClient_connectOptions options = MQTTClient_connectOptions_initializer;
    options.keepAliveInterval = 60;
    options.cleansession = 1;
    options.reliable = 0;
    options.username = username.c_str();
    options.password = password.c_str();
    options.connectTimeout = 30;
    options.retryInterval = 30;
    return options;
}

void brokerDisconnected(void*, MQTTProperties*, enum MQTTReasonCodes reason) {
    log.error("disconnect, code=" + std::to_string(static_cast<int>(reason)));
}

// A handler's own copy of a message, which goes with its task.
class MessageCopy {
public:
    explicit MessageCopy(const std::string& payload) {
        _message.payloadlen = static_cast<int>(payload.size());
        _message.payload = std::malloc(payload.empty() ? 1 : payload.size());
        if (_message.payload == nullptr) throw std::bad_alloc();
        std::memcpy(_message.payload, payload.data(), payload.size());
    }

    ~MessageCopy() { std::free(_message.payload); }

    MessageCopy(const MessageCopy&) = delete;
    MessageCopy& operator=(const MessageCopy&) = delete;

    MQTTClient_message* get() { return &_message; }

private:
    MQTTClient_message _message = MQTTClient_message_initializer;
};

std::function<void()> messageTask(const MqttClient::MessageHandler& handler,
                                  const std::string& payload, const std::string& topic,
                                  bool quiet) {
    const auto copy = std::make_shared<MessageCopy>(payload);
    return [handler, copy, topic, quiet] {
        if (!quiet) log.information(format("Begin handle msg async, topic: %s", topic));
        const bool done = logExceptions(log, [&] { handler(copy->get(), topic); });
        if (done && !quiet) log.information(format("End handle msg async, topic: %s", topic));
    };
}

void submitMessageTask(const std::function<void()>& task) {
    try {
        mqttPool().start(task);
    } catch (const Poco::NoThreadAvailableException& exc) {
        log.error(exc);
        task();
    } catch (const std::exception& exc) {
        log.error(exc);
    }
}

// Empty, with the reason logged, where `payload` is no JSON object.
Poco::JSON::Object::Ptr parseMessage(const std::string& payload) {
    Poco::JSON::Object::Ptr object;
    logExceptions(log, [&] {
        object = Poco::JSON::Parser().parse(payload).extract<Poco::JSON::Object::Ptr>();
    });
    if (!object) log.error("json msg is empty");
    return object;
}

// "" for a missing member. Throws Poco::InvalidAccessException for a JSON null.
std::string memberText(const Poco::JSON::Object& object, const std::string& name) {
    return object.has(name) ? object.get(name).convert<std::string>() : std::string();
}

void handleJson(const MqttClient::JsonMessageHandler& handler, const MQTTClient_message& message,
                const std::string& topic) {
    const std::string payload(static_cast<const char*>(message.payload),
                              static_cast<std::size_t>(message.payloadlen));
    const Poco::Dynamic::Var parsed = Poco::JSON::Parser().parse(payload);
    const bool isObject = parsed.type() == typeid(Poco::JSON::Object::Ptr);
    if (handler && isObject) {
        handler(*parsed.extract<Poco::JSON::Object::Ptr>(), topic);
    } else {
        log.error("invalid json string");
    }
}

MqttClient::MessageHandler jsonHandler(MqttClient::JsonMessageHandler handler) {
    return [handler = std::move(handler)](MQTTClient_message* message, const std::string& topic) {
        if (!message || !message->payload || message->payloadlen <= 0) return;
        logExceptions(log, [&] { handleJson(handler, *message, topic); });
    };
}

// 0, or the library's code for a message that it would send although no broker accepts it.
int checkMessage(const std::string& payload, const std::string& topic, int qos) {
    constexpr std::size_t kLargestPacket = 268435455;
    constexpr std::size_t kHeaders = 16;
    if (qos < 0 || qos > 2) return MQTTCLIENT_BAD_QOS;
    if (!topics::isValidTopic(topic)) return MQTTCLIENT_FAILURE;
    const bool fits = payload.size() + topic.size() + kHeaders <= kLargestPacket;
    return fits ? MQTTCLIENT_SUCCESS : MQTTCLIENT_FAILURE;
}

}  // namespace

std::shared_ptr<MqttClient> MqttClient::createInstance(std::string address, std::string clientId,
                                                       std::string username, std::string password) {
    return std::shared_ptr<MqttClient>(new MqttClient(std::move(address), std::move(clientId),
                                                      std::move(username), std::move(password)));
}

MqttClient::MqttClient(std::string address, std::string clientId, std::string username,
                       std::string password)
    : _address(std::move(address)),
      _client_id(std::move(clientId)),
      _username(std::move(username)),
      _password(std::move(password)),
      _in_flight(std::make_unique<InFlightWindow>()) {
    startMessaging();
    Create_l();
}

// Needs no lock: nobody else has the object any more. It may run inside the library's callback,
// which holds the library's own.
MqttClient::~MqttClient() {
    closeHandle();
}

// Setters may run beside the callbacks they set.
template <typename Callback>
Callback MqttClient::callbackCopy(const Callback& member) {
    const std::lock_guard<std::mutex> lock(_callback_mutex);
    return member;
}

// ---- Connection ---------------------------------------------------------------------------------

void MqttClient::Create_l() {
    const std::lock_guard<std::mutex> lock(_client_mutex);
    closeHandle();
    messaging().stop.sleepFor(kPauseBeforeCreate);
    createHandle();
}

void MqttClient::createHandle() {
    MQTTClient handle = nullptr;
    int rc = MQTTCLIENT_FAILURE;
    if (!libraryHoldsItsLock) {
        rc = MQTTClient_create(&handle, _address.c_str(), _client_id.c_str(),
                               MQTTCLIENT_PERSISTENCE_NONE, nullptr);
    }
    if (rc != 0) {
        log.error(format("Failed to create mqtt client, return code %d", rc));
        return;
    }
    log.information("Success to create mqtt client");
    _ticket = gate().issue();
    _mqtt_client = handle;
    rc = MQTTClient_setCallbacks(handle, _ticket, connlost, msgarrvd, delivered);
    if (rc != 0) log.error(format("Failed to set callbacks, return code %d", rc));
    rc = MQTTClient_setDisconnected(handle, _ticket, brokerDisconnected);
    if (rc != 0) log.error(format("Failed to set disconnect callbacks, return code %d", rc));
}

// A handle with a callback in progress, perhaps the caller's own, is disposed of elsewhere.
void MqttClient::closeHandle() {
    const MQTTClient handle = _mqtt_client.exchange(nullptr);
    if (!handle) return;
    const CallbackGate::Ticket ticket = _ticket;
    _in_flight->close();
    gate().closeSession(ticket);
    if (!CallbackGate::onLibraryThread() && gate().quiesce(ticket, kHandlerPatience)) {
        disposeOfHandle(handle, ticket);
        return;
    }
    runOnHelper([handle, ticket] {
        gate().quiesce(ticket, kForever);
        disposeOfHandle(handle, ticket);
    });
}

void MqttClient::Connect(std::function<bool(int)> onConnectResult,
                         std::function<bool(std::string)> onConnectionLost) {
    {
        const std::lock_guard<std::mutex> lock(_callback_mutex);
        _connect_callback = std::move(onConnectResult);
        _connection_lost_callback = std::move(onConnectionLost);
    }
    Connect_l();
}

void MqttClient::Connect_l() {
    runConnectInBackground([weak = weak_from_this()] { runConnectTask(weak); });
}

void MqttClient::runConnectTask(const std::weak_ptr<MqttClient>& weak) {
    std::shared_ptr<MqttClient> client = weak.lock();
    if (!client) return;
    SubscribeMap restored;
    const std::optional<int> rc = client->connectOnce(restored);
    if (!rc) return;
    const bool again = client->askAfterConnect(*rc);
    if (*rc == 0) {
        client->beginSession(restored);
        return;
    }
    client.reset();
    if (!again || !messaging().stop.sleepFor(kPauseBeforeRetry)) return;
    rebuild(weak);
}

std::optional<int> MqttClient::connectOnce(SubscribeMap& restored) {
    const std::lock_guard<std::mutex> lock(_client_mutex);
    const MQTTClient handle = _mqtt_client;
    if (!handle) return {};
    endSession(handle);
    gate().openSession(_ticket, handle, weak_from_this());
    _in_flight->open();
    MQTTClient_connectOptions options = connectOptions(_username, _password);
    const int rc = [&] {
        const ConnectTurn turn(kForever);
        return MQTTClient_connect(handle, &options);
    }();
    if (rc != 0) {
        _in_flight->close();
        gate().closeSession(_ticket);
        log.error(format("Failed to connect, return code %d", rc));
        return rc;
    }
    gate().acceptMessages(_ticket);
    const std::lock_guard<std::mutex> tableLock(_subscribe_mutex);
    restored.swap(_subscribe_map);
    return rc;
}

// A second connect on a connected handle would leave the first connection's socket behind.
void MqttClient::endSession(MQTTClient handle) {
    if (!MQTTClient_isConnected(handle)) return;
    _in_flight->close();
    gate().quiesce(_ticket, kHandlerPatience);
    disconnect(handle);
}

bool MqttClient::askAfterConnect(int rc) {
    const auto callback = callbackCopy(_connect_callback);
    bool again = false;
    if (callback) logExceptions(log, [&] { again = callback(rc); });
    return again;
}

void MqttClient::beginSession(const SubscribeMap& restored) {
    _connected = true;
    // The connection may have gone already; connlost has then cleared the flag too early.
    if (!gate().inSession(_ticket)) _connected = false;
    for (const auto& [topic, handlers] : restored) {
        for (const MessageHandler& handler : handlers) Subscribe(handler, topic, 0);
    }
}

void MqttClient::rebuild(const std::weak_ptr<MqttClient>& weak) {
    const std::shared_ptr<MqttClient> client = weak.lock();
    if (!client) return;
    client->Create_l();
    client->Connect_l();
}

// A library thread must not wait for the broker's answer, which that thread itself brings.
void MqttClient::offLibraryThread(std::function<void(MqttClient&)> call) {
    if (!CallbackGate::onLibraryThread()) {
        call(*this);
        return;
    }
    runOnHelper([weak = weak_from_this(), call = std::move(call)] {
        if (const auto client = weak.lock()) call(*client);
    });
}

void MqttClient::Disconnect() {
    offLibraryThread([](MqttClient& client) { client.Disconnect_l(); });
}

void MqttClient::Disconnect_l() {
    const std::lock_guard<std::mutex> lock(_client_mutex);
    const MQTTClient handle = _mqtt_client;
    if (!handle) {
        log.error("Failed to disconnect, _mqtt_client is null");
        return;
    }
    _in_flight->close();
    gate().quiesce(_ticket, kHandlerPatience);
    const int rc = disconnect(handle);
    const char* outcome = rc == 0 ? "Success" : "Failed";
    log.error(format("%s to disconnect, return code %d", std::string(outcome), rc));
}

// ---- Loss and reconnection ----------------------------------------------------------------------

void MqttClient::connlost(void* context, char* cause) {
    log.error("connection lost");
    if (!context) {
        log.error("context is null");
        return;
    }
    logExceptions(log, [&] {
        const CallbackGate::Visit visit(gate(), context);
        if (visit.client()) visit.client()->sessionLost(context, cause ? cause : "");
    });
}

void MqttClient::sessionLost(void* ticket, const std::string& cause) {
    gate().closeSession(ticket);
    _in_flight->close();
    _connected = false;
    const unsigned loss = ++_losses;
    if (!callbackCopy(_connection_lost_callback)) return;
    runOnHelper([weak = weak_from_this(), loss, cause] { reconnect(weak, loss, cause); });
}

void MqttClient::reconnect(const std::weak_ptr<MqttClient>& weak, unsigned loss,
                           const std::string& cause) {
    if (!askAfterLoss(weak, cause)) return;
    log.information("start reconnect mqtt.");
    if (awaitBrokerHost(weak, loss)) rebuild(weak);
}

bool MqttClient::askAfterLoss(const std::weak_ptr<MqttClient>& weak, const std::string& cause) {
    const std::shared_ptr<MqttClient> client = weak.lock();
    if (!client) return false;
    const auto callback = client->callbackCopy(client->_connection_lost_callback);
    bool again = false;
    if (callback) logExceptions(log, [&] { again = callback(cause); });
    return again;
}

// False if it is not worth waiting any more: the client is gone, the host has connected it by
// itself, a later loss has its own reconnection, or the process ends.
bool MqttClient::awaitBrokerHost(const std::weak_ptr<MqttClient>& weak, unsigned loss) {
    do {
        const std::shared_ptr<MqttClient> client = weak.lock();
        if (!client || client->_connected || client->_losses != loss) return false;
        if (!client->_mqtt_client) return true;
        if (brokerHostAnswers(client->_address)) {
            log.information("ping succeed, ip: " + client->_address);
            return true;
        }
    } while (messaging().stop.sleepFor(kPauseBetweenPings));
    return false;
}

// ---- Subscriptions ------------------------------------------------------------------------------

void MqttClient::Subscribe(std::function<void(const Poco::JSON::Object&, std::string)> handler,
                           std::string topic, int qos) {
    Subscribe(MessageHandler(jsonHandler(std::move(handler))), std::move(topic), qos);
}

void MqttClient::Subscribe(std::function<void(MQTTClient_message*, std::string)> handler,
                           std::string topic, int qos) {
    const auto subscribe = [handler = std::move(handler), topic = std::move(topic),
                            qos](MqttClient& client) {
        logExceptions(log, [&] { client.Subscribe_l(handler, topic, qos); });
    };
    try {
        mqttPool().start([weak = weak_from_this(), subscribe] {
            if (const auto client = weak.lock()) subscribe(*client);
        });
    } catch (const std::exception&) {
        offLibraryThread(subscribe);
    }
}

void MqttClient::Subscribe_l(const MessageHandler& handler, const std::string& topic, int qos) {
    const std::lock_guard<std::mutex> lock(_client_mutex);
    if (handler) {
        const std::lock_guard<std::mutex> tableLock(_subscribe_mutex);
        _subscribe_map[topic] = {handler};
    }
    const MQTTClient handle = _mqtt_client;
    if (!handle) {
        log.error(format("Failed to subscribe topic %s, _mqtt_client is null", topic));
    } else if (!MQTTClient_isConnected(handle)) {
        log.error(format("Failed to subscribe topic %s, _mqtt_client is not connected", topic));
    } else {
        const CallbackGate::Call call(gate(), _ticket, CallbackGate::Call::Kind::kAwaitsAnswer);
        const int rc = topics::isValidFilter(topic)
                           ? MQTTClient_subscribe(handle, topic.c_str(), qos)
                           : MQTTCLIENT_FAILURE;
        const std::string text = format(" to subscribe topic %s, return code %d", topic, rc);
        rc == 0 ? log.information("Success" + text) : log.error("Failed" + text);
    }
}

void MqttClient::Unsubscribe(std::string topic) {
    offLibraryThread([topic = std::move(topic)](MqttClient& client) {
        logExceptions(log, [&] { client.Unsubscribe_l(topic); });
    });
}

void MqttClient::Unsubscribe_l(const std::string& topic) {
    if (!unsubscribeAtBroker(topic)) return;
    const std::lock_guard<std::mutex> lock(_subscribe_mutex);
    if (_subscribe_map.erase(topic) == 0) return;
    log.information(format("--Success to erase topic %s from subscribe map", topic));
}

// False if there is no handle; what the broker answers does not matter.
bool MqttClient::unsubscribeAtBroker(const std::string& topic) {
    const std::lock_guard<std::mutex> lock(_client_mutex);
    const MQTTClient handle = _mqtt_client;
    if (!handle) {
        log.error(format("Failed to unsubscribe topic=%s, mqtt client is null", topic));
        return false;
    }
    if (!_connected || !MQTTClient_isConnected(handle)) {
        log.information("mqtt is not connected!");
        return true;
    }
    const CallbackGate::Call call(gate(), _ticket, CallbackGate::Call::Kind::kAwaitsAnswer);
    const int rc = topics::isValidFilter(topic) ? MQTTClient_unsubscribe(handle, topic.c_str())
                                                : MQTTCLIENT_FAILURE;
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
    if (!_mqtt_client) {
        log.error(format("Failed to publish message for topic=%s, mqtt client is null", topic));
        return false;
    }
    if (!_connected) {
        log.error(format("Failed to publish message for topic=%s, mqtt is not connected", topic));
        return false;
    }
    try {
        const int rc = publishInSession(payload, topic, qos, retained);
        if (rc == 0) return true;
        log.error(format("Failed to publish message for topic %s, return code %d", topic, rc));
    } catch (const std::exception& exc) {
        log.error("error description: " + exceptionText(exc));
    } catch (...) {
        log.error("error description: unknown error");
    }
    return false;
}

int MqttClient::publishInSession(const std::string& payload, const std::string& topic, int qos,
                                 int retained) {
    // The library may wait for its receive thread in there.
    if (CallbackGate::onLibraryThread()) return MQTTCLIENT_MAX_MESSAGES_INFLIGHT;
    const int unfit = checkMessage(payload, topic, qos);
    if (unfit != 0) return unfit;
    if (qos == 0) return publishOnce(payload, topic, qos, retained);
    const std::optional<InFlightWindow::Session> session = _in_flight->take();
    if (!session) return MQTTCLIENT_DISCONNECTED;
    const int rc = publishOnce(payload, topic, qos, retained);
    if (rc != 0) _in_flight->giveBack(*session);
    return rc;
}

int MqttClient::publishOnce(const std::string& payload, const std::string& topic, int qos,
                            int retained) {
    MQTTClient_message message = MQTTClient_message_initializer;
    message.payloadlen = static_cast<int>(payload.size());
    message.payload = const_cast<char*>(payload.data());  // the library only reads it
    message.qos = qos;
    message.retained = retained;
    const std::lock_guard<std::mutex> lock(_client_mutex);
    const MQTTClient handle = _mqtt_client;
    if (!handle) return MQTTCLIENT_FAILURE;
    const CallbackGate::Call call(gate(), _ticket, CallbackGate::Call::Kind::kPublish);
    // Asked for the token, the library reads it after the acknowledgement may have freed it.
    return MQTTClient_publishMessage(handle, topic.c_str(), &message, nullptr);
}

void MqttClient::delivered(void* context, MQTTClient_deliveryToken token) {
    if (!context) {
        log.error("context is null");
        return;
    }
    libraryHoldsItsLock = true;
    logExceptions(log, [&] {
        const CallbackGate::Visit visit(gate(), context);
        if (visit.client()) visit.client()->messageDelivered(token);
    });
    libraryHoldsItsLock = false;
}

void MqttClient::messageDelivered(int token) {
    _in_flight->delivered();
    const auto callback = callbackCopy(_delivery_complete_callback);
    if (callback) callback(token);
}

// ---- Arrival ------------------------------------------------------------------------------------

int MqttClient::msgarrvd(void* context, char* topicName, int /*topicLen*/,
                         MQTTClient_message* message) {
    if (!context) {
        log.error("context is null");
        MQTTClient_freeMessage(&message);
        MQTTClient_free(topicName);
        return kMessageTaken;
    }
    int outcome = kMessageLeft;
    logExceptions(log, [&] {
        CallbackGate::Visit visit(gate(), context);
        const auto copy = visit.copy(topicName, message);
        if (!copy) return;
        logExceptions(log, [&] { visit.client()->dispatch(copy->payload, copy->topic); });
        if (visit.release(topicName, message)) outcome = kMessageTaken;
    });
    return outcome;
}

void MqttClient::dispatch(const std::string& payload, const std::string& topic) {
    const Poco::JSON::Object::Ptr object = parseMessage(payload);
    if (!object) return;
    if (topics::marksDroppedKind(topic) || topics::marksDroppedKind(memberText(*object, "api"))) {
        return;
    }
    const bool quiet = !topics::isBus(topic);
    if (!quiet && log.informationEnabled()) {
        log.information(format("mqtt rece msg: %s, topic=%s", payload, topic));
    }
    if (memberText(*object, "type") == "response") return;
    const std::list<MessageHandler> handlers = handlersFor(topic);
    if (!quiet) log.information(format("Begin handle msg, topic: %s", topic));
    for (const MessageHandler& handler : handlers) {
        if (!handler) continue;
        logExceptions(log, [&] { submitMessageTask(messageTask(handler, payload, topic, quiet)); });
    }
}

std::list<MqttClient::MessageHandler> MqttClient::handlersFor(const std::string& topic) {
    const std::lock_guard<std::mutex> lock(_subscribe_mutex);
    const auto exact = _subscribe_map.find(topic);
    if (exact != _subscribe_map.end()) return exact->second;
    for (const auto& [filter, handlers] : _subscribe_map) {
        if (topics::filterCovers(filter, topic)) return handlers;
    }
    return {};
}

// ---- Accessors ----------------------------------------------------------------------------------

std::string MqttClient::getstation() {
    if (_client_id.empty()) log.error("_client_id is empty");
    return _client_id;
}

void MqttClient::SetVehicleConn(bool connected) {
    _vehicle_conn = connected;
}

void MqttClient::SetDeliveryCompleteCallback(std::function<void(int)> callback) {
    const std::lock_guard<std::mutex> lock(_callback_mutex);
    _delivery_complete_callback = std::move(callback);
}

void MqttClient::setMessageReceiveTailorCallback(
    std::function<void(Poco::JSON::Object::Ptr)> callback) {
    const std::lock_guard<std::mutex> lock(_callback_mutex);
    _message_receive_tailor_callback = std::move(callback);
}

void MqttClient::setMessagePushSpliceCallback(std::function<void(std::string&)> callback) {
    const std::lock_guard<std::mutex> lock(_callback_mutex);
    _message_push_splice_callback = std::move(callback);
}

}  // namespace kel
