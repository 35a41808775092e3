#pragma once

#include <MQTTClient.h>
#include <Poco/JSON/Object.h>

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "Export.h"

namespace kel {

class InFlightWindow;

/// One connection to an MQTT 3.1.1 broker (clean session, keep-alive 60 s), its subscriptions with
/// a handler each, and its reconnection. Make it with createInstance() and keep the shared_ptr.
///
/// Errors: nothing is thrown to the caller; every failure is a line in the log.
/// Threads: all operations may be called from any thread, from every callback and from every
/// handler. Handlers and the connect callback run on a pool of 32 threads that all clients of the
/// process share; when it is full a handler runs on the MQTT library's receive thread, where
/// PublishMessage() is refused. Handlers of one topic may run at the same time and out of order.
/// The callback setters are to be called before Connect().
///
/// Releasing the last reference disconnects (it waits up to 2 s for unacknowledged messages). It
/// may be done at any moment, from a callback too. A handler that has begun, or has been handed to
/// the pool, may still run afterwards.
class KEL_API MqttClient : public std::enable_shared_from_this<MqttClient> {
public:
    /// A message and its topic. The message belongs to the library and is valid during the call:
    /// payload and payloadlen (bytes, no final NUL) are set, QoS and retained are always 0.
    using MessageHandler = std::function<void(MQTTClient_message*, std::string)>;

    /// A payload that is a JSON object, and its topic.
    using JsonMessageHandler = std::function<void(const Poco::JSON::Object&, std::string)>;

    /// Creates the library handle; makes no connection. Takes one second. In a delivery callback
    /// it fails (logged), since the MQTT library holds its lock there.
    /// @param address   server URI "tcp://host:port", also without scheme (tcp) or port (1883).
    /// @param clientId  unique at the broker; a second client with the same id ends the first's
    ///                  connection.
    /// @param username  sent with every connect, also when empty, as `password`.
    static std::shared_ptr<MqttClient> createInstance(std::string address, std::string clientId,
                                                      std::string username, std::string password);

    /// For createInstance(): an object without a shared owner never connects.
    MqttClient(std::string address, std::string clientId, std::string username,
               std::string password);

    virtual ~MqttClient();

    MqttClient(const MqttClient&) = delete;
    MqttClient& operator=(const MqttClient&) = delete;

    /// Connects in the background; returns at once. After success every subscription is made
    /// again at the broker, at QoS 0. A client that is connected already ends that session first.
    /// @param onConnectResult   called with the library's return code after each attempt (0:
    ///        connected). Returning true after a failure asks for another attempt 4 s later,
    ///        without limit; after success the result is ignored. May be empty: no retry.
    /// @param onConnectionLost  called with the cause ("" if unknown) when an established
    ///        connection is lost. Returning true waits until the broker's host answers a ping, or
    ///        its port accepts or refuses a TCP connection (tried every 2 s, without limit), and
    ///        connects anew. May be empty: stay disconnected.
    ///        It may block; it runs on a thread of the library's own.
    void Connect(std::function<bool(int)> onConnectResult,
                 std::function<bool(std::string)> onConnectionLost);

    /// Ends the session at the broker; waits up to 2 s for unacknowledged messages. The
    /// subscriptions are kept for a later Connect(). From a handler that runs on the library's
    /// receive thread it takes effect shortly after its return.
    void Disconnect();

    /// Has `handler` called for each message on `topic`, replacing an earlier handler of exactly
    /// this filter, and subscribes at the broker in the background. While not connected the
    /// subscription is kept for the next connect. An empty handler subscribes without being kept.
    /// A payload that is no JSON object is logged and not handed on.
    /// @param topic  topic or filter. An exact topic comes before filters; a filter matches where
    ///               the part before its first "/#" (or "/+") occurs anywhere in the topic.
    /// @param qos    0, 1 or 2; 0 after a reconnect.
    /// Messages whose topic or "api" contains "heartBeat" or "pushTelemetry", or whose "type" is
    /// "response", are never handed on.
    void Subscribe(std::function<void(const Poco::JSON::Object&, std::string)> handler,
                   std::string topic, int qos);

    /// As above, with the payload bytes as they came; they are always a JSON object's text.
    void Subscribe(std::function<void(MQTTClient_message*, std::string)> handler, std::string topic,
                   int qos);

    /// Unsubscribes `topic` at the broker, waiting for its answer, and forgets the handler in any
    /// case. From a handler that runs on the library's receive thread it takes effect shortly
    /// after its return.
    void Unsubscribe(std::string topic);

    /// Sends one message; does not wait until it has been delivered. At QoS 1 and 2 it waits
    /// while ten messages are unacknowledged; the wait ends with the connection.
    /// @param payload   bytes, at most 256 MiB with the topic.
    /// @param retained  1: the broker keeps it for later subscribers; else 0.
    /// @param token     ignored.
    /// @return whether the library accepted it. At QoS 1 and 2 the delivery callback tells when it
    ///         has been delivered; if the connection goes first, it may be lost. Always false (with
    ///         the library's code for too many messages in flight) on the library's own receive
    ///         thread, which must not wait for itself.
    bool PublishMessage(std::string payload, std::string topic, int qos, int retained, int token);

    /// The client id; "" (and an error line) if it is empty.
    std::string getstation();

    /// Stored for the host's own use; the library does not read it.
    void SetVehicleConn(bool connected);

    /// Has `callback` called with the library's token for each QoS 1 or 2 message that has been
    /// delivered. It runs on the library's receive thread and must return soon.
    void SetDeliveryCompleteCallback(std::function<void(int)> callback);

    /// Stored; the library does not call it.
    void setMessageReceiveTailorCallback(std::function<void(Poco::JSON::Object::Ptr)> callback);

    /// Stored; the library does not call it.
    void setMessagePushSpliceCallback(std::function<void(std::string&)> callback);

private:
    using SubscribeMap = std::unordered_map<std::string, std::list<MessageHandler>>;

    void Create_l();
    void Connect_l();
    void Disconnect_l();
    void Subscribe_l(const MessageHandler& handler, const std::string& topic, int qos);
    void Unsubscribe_l(const std::string& topic);

    void createHandle();
    void closeHandle();
    std::optional<int> connectOnce(SubscribeMap& restored);
    void endSession(MQTTClient handle);
    bool askAfterConnect(int rc);
    void beginSession(const SubscribeMap& restored);
    void sessionLost(void* ticket, const std::string& cause);
    void messageDelivered(int token);
    void offLibraryThread(std::function<void(MqttClient&)> call);
    bool unsubscribeAtBroker(const std::string& topic);
    int publishInSession(const std::string& payload, const std::string& topic, int qos,
                         int retained);
    int publishOnce(const std::string& payload, const std::string& topic, int qos, int retained);
    void dispatch(const std::string& payload, const std::string& topic);
    std::list<MessageHandler> handlersFor(const std::string& topic);

    template <typename Callback>
    Callback callbackCopy(const Callback& member);

    // Background work, which holds the client only weakly between its steps.
    static void runConnectTask(const std::weak_ptr<MqttClient>& weak);
    static void reconnect(const std::weak_ptr<MqttClient>& weak, unsigned loss,
                          const std::string& cause);
    static bool askAfterLoss(const std::weak_ptr<MqttClient>& weak, const std::string& cause);
    static bool awaitBrokerHost(const std::weak_ptr<MqttClient>& weak, unsigned loss);
    static void rebuild(const std::weak_ptr<MqttClient>& weak);

    // Called by the MQTT library. `context` is a ticket of the callback gate, never a pointer.
    static void connlost(void* context, char* cause);
    static int msgarrvd(void* context, char* topicName, int topicLen, MQTTClient_message* message);
    static void delivered(void* context, MQTTClient_deliveryToken token);

    // Set at construction.
    std::string _address;
    std::string _client_id;
    std::string _username;
    std::string _password;

    // Where both are held, _client_mutex is taken first. Nothing the MQTT library calls back takes
    // it: a connect holds it for up to 30 s.
    std::mutex _subscribe_mutex;
    std::mutex _client_mutex;

    SubscribeMap _subscribe_map;  // guarded by _subscribe_mutex

    std::atomic<MQTTClient> _mqtt_client{nullptr};  // changed under _client_mutex
    std::atomic<void*> _ticket{nullptr};            // of the handle; changed under _client_mutex

    std::mutex _callback_mutex;
    // Guarded by _callback_mutex; copied out before they are called.
    std::function<bool(int)> _connect_callback;
    std::function<bool(std::string)> _connection_lost_callback;
    std::function<void(int)> _delivery_complete_callback;
    std::function<void(Poco::JSON::Object::Ptr)> _message_receive_tailor_callback;
    std::function<void(std::string&)> _message_push_splice_callback;

    // Own locking.
    std::atomic<bool> _vehicle_conn{false};
    std::atomic<bool> _connected{false};
    std::atomic<unsigned> _losses{0};
    std::unique_ptr<InFlightWindow> _in_flight;
};

}  // namespace kel
