#pragma once

#include <MQTTClient.h>
#include <Poco/JSON/Object.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "Export.h"
#include "MqttOptions.h"

namespace kel {

/// One connection to an MQTT 3.1.1 broker (clean session, keep-alive 60 s unless asked otherwise),
/// its subscriptions with a handler each, and its reconnection. Make it with createInstance() and
/// keep the shared_ptr.
///
/// Errors: nothing is thrown to the caller, options out of their range excepted; every failure is a
/// line in the log.
/// Threads: all operations may be called from any thread, from every callback and from every
/// handler, with one exception: in the delivery callback, which runs on the MQTT library's receive
/// thread, PublishMessage() is refused. Handlers run on a pool of 32 threads that all clients of
/// the process share; when it is full they run one at a time on a dispatching thread of this
/// library. Handlers of one topic may run at the same time and out of order. The callback setters
/// are to be called before Connect().
/// Memory: messages that wait for the dispatching thread are bounded to 4096 and 32 MiB in the
/// process (twice that while an inline handler waits for its broker); then no more are received.
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
    /// @param address   server URI "tcp://host:port", also without scheme (tcp) or port (1883);
    ///                  "ssl://" or "mqtts://" (8883) for TLS, with the broker's certificate
    ///                  verified. A failed handshake is a failed attempt, with a line that says
    ///                  why.
    /// @param clientId  unique at the broker; a second client with the same id ends the first's
    ///                  connection.
    /// @param username  sent with every connect, also when empty, as `password`.
    static std::shared_ptr<MqttClient> createInstance(std::string address, std::string clientId,
                                                      std::string username, std::string password);

    /// As above, with what else a connection may need: keep-alive, connect time-out, last will, and
    /// the files of a secure one.
    /// @throws Poco::InvalidArgumentException  a member of `options` is out of its range.
    static std::shared_ptr<MqttClient> createInstance(std::string address, std::string clientId,
                                                      std::string username, std::string password,
                                                      MqttOptions options);

    /// As createInstance(), for an owner of another kind.
    MqttClient(std::string address, std::string clientId, std::string username,
               std::string password);
    MqttClient(std::string address, std::string clientId, std::string username,
               std::string password, MqttOptions options);

    virtual ~MqttClient();

    MqttClient(const MqttClient&) = delete;
    MqttClient& operator=(const MqttClient&) = delete;

    /// Connects in the background; returns at once. After success every subscription is made
    /// again at the broker, at QoS 0. A client that is connected already ends that session first.
    /// @param onConnectResult   called with the library's return code after each attempt (0:
    ///        connected, and messages can be published). Returning true after a failure asks for
    ///        another attempt 4 s later, without limit; after success the result is ignored. May be
    ///        empty: no retry. An attempt takes up to 30 s where a broker accepts and stays mute;
    ///        the MQTT library makes one at a time in a process, clients whose last attempts have
    ///        failed after the others. A subscription made in the callback is left as it is made.
    /// @param onConnectionLost  called with the cause ("" if unknown) when an established
    ///        connection is lost. Returning true waits until the broker's host answers (a ping, or
    ///        the broker's port; tried every 2 s, without limit) and connects anew. May be empty:
    ///        stay disconnected.
    /// Both may block; they run on threads of the library's own.
    void Connect(std::function<bool(int)> onConnectResult,
                 std::function<bool(std::string)> onConnectionLost);

    /// Ends the session at the broker; waits up to 2 s for unacknowledged messages. The
    /// subscriptions are kept for a later Connect(), and what has arrived is still handed on. From
    /// the delivery callback it takes effect shortly after its return. Where an attempt to connect
    /// is under way, it waits for its end first.
    void Disconnect();

    /// Has `handler` called for each message on `topic`, replacing an earlier handler of exactly
    /// this filter, and subscribes at the broker in the background. While not connected the
    /// subscription is kept for the next connect. With an empty handler each message is logged as
    /// "invalid json string". A payload that is no JSON object is logged and not handed on.
    /// @param topic  topic or filter. An exact topic comes before filters; a filter matches where
    ///               the part before its first "/#" (or "/+") occurs anywhere in the topic.
    /// @param qos    0, 1 or 2; 0 after a reconnect.
    /// Messages whose topic or "api" contains "heartBeat" or "pushTelemetry", or whose "type" is
    /// "response", are never handed on.
    void Subscribe(std::function<void(const Poco::JSON::Object&, std::string)> handler,
                   std::string topic, int qos);

    /// As above, with the payload bytes as they came; they are always a JSON object's text. An
    /// empty handler subscribes at the broker, and an earlier handler stays.
    void Subscribe(std::function<void(MQTTClient_message*, std::string)> handler, std::string topic,
                   int qos);

    /// Unsubscribes `topic` at the broker, waiting for its answer, and forgets the handler in any
    /// case. From the delivery callback it takes effect shortly after its return.
    void Unsubscribe(std::string topic);

    /// Sends one message; does not wait until it has been delivered. At QoS 1 and 2 it waits
    /// while ten messages are unacknowledged; the wait ends with the connection. At QoS 0 it may
    /// wait 10 ms for an acknowledgement while there are such messages.
    /// @param payload   bytes, at most 256 MiB with the topic.
    /// @param retained  1: the broker keeps it for later subscribers; else 0.
    /// @param token     ignored.
    /// @return whether the library accepted it. At QoS 1 and 2 the delivery callback tells when it
    ///         has been delivered; if the connection is lost first, it may be too. Always false
    ///         (with the library's code for too many messages in flight) in a delivery callback,
    ///         and in an inline handler that would have to wait while its queue is full twice over.
    bool PublishMessage(std::string payload, std::string topic, int qos, int retained, int token);

    /// As PublishMessage(), and waits until the broker has confirmed the message.
    /// @param deadline  longest wait, a day at most, for a place among the ten unacknowledged ones
    ///        and for the confirmation together; the first may overrun it by 100 ms.
    /// @return whether it has been confirmed; at QoS 0, which knows no confirmation, whether it has
    ///         been accepted. False at once where PublishMessage() is refused; also when the
    ///         connection is lost, and when `deadline` passes: the message may still arrive then.
    /// May be called wherever PublishMessage() may, from handlers too. The delivery callback is
    /// told as well.
    bool PublishAndWait(std::string payload, std::string topic, int qos, int retained,
                        std::chrono::milliseconds deadline);

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
    struct Impl;

    // Shared with background work, which holds it weakly between its steps.
    const std::shared_ptr<Impl> _impl;
};

}  // namespace kel
