#include "MqttPeers.h"

#include <MQTTClient.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Runnable.h>
#include <Poco/ThreadPool.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <set>

#include "Await.h"
#include "Rounds.h"
#include "common/MqttClient++.h"

namespace bench {

namespace {

constexpr int kWindow = 10;

int sizeOf(const std::string& text) {
    return static_cast<int>(text.size());
}

std::string_view payloadOf(const MQTTClient_message& message) {
    return {static_cast<const char*>(message.payload),
            static_cast<std::size_t>(message.payloadlen)};
}

void connectAndWait(kel::MqttClient& client) {
    const auto result = std::make_shared<std::promise<int>>();
    client.Connect([result](int rc) { return result->set_value(rc), false; }, {});
    check(result->get_future().get() == 0, "the client does not connect");
    check(await([&] { return client.PublishMessage("{}", "bench/ready", 0, 0, 0); }),
          "the client does not publish");
}

class KelPeer : public Peer {
public:
    KelPeer(const Broker& broker, const std::string& name, Handing handing)
        : Peer(name),
          _client(kel::MqttClient::createInstance(broker.address(), name, "", "")),
          _handing(handing) {
        _client->SetDeliveryCompleteCallback([this](int) { ++confirmed; });
        connectAndWait(*_client);
    }
    ~KelPeer() override { _client->Disconnect(); }

    void publish(const std::string& to, const std::string& payload, int qos) override {
        check(_client->PublishMessage(payload, to, qos, 0, 0), "a message was refused");
    }

    void subscribe(const Handler& handler, int qos) override {
        const auto raw = [handler](MQTTClient_message* message, const std::string&) {
            handler(payloadOf(*message));
        };
        const auto json = [handler](const Poco::JSON::Object& object, const std::string&) {
            handler(object.getValue<std::string>("n"));
        };
        if (_handing == Handing::kRaw)
            _client->Subscribe(kel::MqttClient::MessageHandler(raw), topic, qos);
        else
            _client->Subscribe(kel::MqttClient::JsonMessageHandler(json), topic, qos);
    }

private:
    const std::shared_ptr<kel::MqttClient> _client;
    const Handing _handing;
};

MQTTClient_connectOptions pahoOptions() {
    MQTTClient_connectOptions options = MQTTClient_connectOptions_initializer;
    options.reliable = 0;
    return options;
}

class PahoHandle {
public:
    PahoHandle(const Broker& broker, const std::string& name) {
        const int rc = MQTTClient_create(&_handle, broker.address().c_str(), name.c_str(),
                                         MQTTCLIENT_PERSISTENCE_NONE, nullptr);
        check(rc == 0, "Paho makes no client");
    }
    ~PahoHandle() {
        MQTTClient_disconnect(_handle, 1000);
        MQTTClient_destroy(&_handle);
    }
    PahoHandle(const PahoHandle&) = delete;
    PahoHandle& operator=(const PahoHandle&) = delete;

    operator MQTTClient() const { return _handle; }

    void connect() {
        MQTTClient_connectOptions options = pahoOptions();
        check(MQTTClient_connect(_handle, &options) == 0, "Paho does not connect");
    }

    int publish(const std::string& to, const std::string& payload, int qos) {
        int token = 0;
        check(MQTTClient_publish(_handle, to.c_str(), sizeOf(payload), payload.data(), qos, 0,
                                 &token) == 0,
              "Paho refuses a message");
        return token;
    }

private:
    MQTTClient _handle = nullptr;
};

// Deletes itself, since nobody waits for it.
class Handled : public Poco::Runnable {
public:
    Handled(const Peer::Handler& handler, std::string payload, Poco::JSON::Object::Ptr object)
        : _handler(handler), _payload(std::move(payload)), _object(std::move(object)) {}
    void run() override {
        _handler(_payload);
        delete this;
    }

private:
    const Peer::Handler& _handler;
    const std::string _payload;
    const Poco::JSON::Object::Ptr _object;
};

class PahoWindowPeer : public Peer {
public:
    PahoWindowPeer(const Broker& broker, const std::string& name, Handing handing)
        : Peer(name), _handing(handing), _handle(broker, name) {
        MQTTClient_setCallbacks(_handle, this, nullptr, arrived, delivered);
        _handle.connect();
    }

    void publish(const std::string& to, const std::string& payload, int qos) override {
        if (qos != 0) {
            std::unique_lock<std::mutex> lock(_mutex);
            _changed.wait(lock, [this] { return _inFlight < kWindow; });
            ++_inFlight;
        }
        _handle.publish(to, payload, qos);
    }

    void subscribe(const Handler& handler, int qos) override {
        _handler = handler;
        check(MQTTClient_subscribe(_handle, topic.c_str(), qos) == 0, "Paho does not subscribe");
    }

private:
    static void delivered(void* context, MQTTClient_deliveryToken) {
        auto& self = *static_cast<PahoWindowPeer*>(context);
        {
            const std::lock_guard<std::mutex> lock(self._mutex);
            --self._inFlight;
        }
        self._changed.notify_one();
        ++self.confirmed;
    }

    static int arrived(void* context, char* topicName, int, MQTTClient_message* message) {
        static_cast<PahoWindowPeer*>(context)->hand(std::string(payloadOf(*message)));
        MQTTClient_freeMessage(&message);
        MQTTClient_free(topicName);
        return 1;
    }

    void hand(std::string payload) {
        if (_handing == Handing::kRaw) return _handler(payload);
        auto object = Poco::JSON::Parser().parse(payload).extract<Poco::JSON::Object::Ptr>();
        auto* task = new Handled(_handler, std::move(payload), std::move(object));
        try {
            _pool.start(*task);
        } catch (const Poco::NoThreadAvailableException&) {
            task->run();
        }
    }

    const Handing _handing;
    Handler _handler;
    std::mutex _mutex;
    std::condition_variable _changed;
    int _inFlight = 0;  // guarded by _mutex
    Poco::ThreadPool _pool{1, 32};
    PahoHandle _handle;
};

class PahoSyncPeer : public Peer {
public:
    PahoSyncPeer(const Broker& broker, const std::string& name)
        : Peer(name), _handle(broker, name) {
        _handle.connect();
    }

    void publish(const std::string& to, const std::string& payload, int qos) override {
        const int token = _handle.publish(to, payload, qos);
        check(MQTTClient_waitForCompletion(_handle, token, 10000) == 0, "Paho is not confirmed");
        ++confirmed;
    }

    void subscribe(const Handler&, int) override {}

private:
    PahoHandle _handle;
};

class MosquittoHandle {
public:
    MosquittoHandle(const std::string& name, void* context)
        : _handle(mosquitto_new(name.c_str(), true, context)) {
        check(_handle != nullptr, "libmosquitto makes no client");
        mosquitto_max_inflight_messages_set(_handle, kWindow);
    }
    ~MosquittoHandle() {
        mosquitto_disconnect(_handle);
        mosquitto_loop_stop(_handle, false);
        mosquitto_destroy(_handle);
    }
    MosquittoHandle(const MosquittoHandle&) = delete;
    MosquittoHandle& operator=(const MosquittoHandle&) = delete;

    operator mosquitto*() const { return _handle; }

    void connect(const Broker& broker) {
        check(mosquitto_connect(_handle, "127.0.0.1", broker.port(), 60) == 0 &&
                  mosquitto_loop_start(_handle) == 0,
              "libmosquitto does not connect");
    }

private:
    mosquitto* const _handle;
};

class MosquittoPeer : public Peer {
public:
    MosquittoPeer(const Broker& broker, const std::string& name) : Peer(name), _handle(name, this) {
        mosquitto_publish_callback_set(_handle, [](mosquitto*, void* context, int) {
            ++static_cast<MosquittoPeer*>(context)->confirmed;
        });
        mosquitto_message_callback_set(
            _handle, [](mosquitto*, void* context, const mosquitto_message* message) {
                static_cast<MosquittoPeer*>(context)->_handler(
                    {static_cast<const char*>(message->payload),
                     static_cast<std::size_t>(message->payloadlen)});
            });
        _handle.connect(broker);
    }

    void publish(const std::string& to, const std::string& payload, int qos) override {
        check(mosquitto_publish(_handle, nullptr, to.c_str(), sizeOf(payload), payload.data(), qos,
                                false) == 0,
              "libmosquitto refuses a message");
    }

    void subscribe(const Handler& handler, int qos) override {
        _handler = handler;
        check(mosquitto_subscribe(_handle, nullptr, topic.c_str(), qos) == 0,
              "libmosquitto does not subscribe");
    }

private:
    Handler _handler;
    MosquittoHandle _handle;
};

// Subscribes when the broker has accepted it, in one packet.
struct MosquittoConnection {
    MosquittoConnection(const std::vector<std::string>& all, TopicHandler told)
        : filters(all), handler(std::move(told)), handle("filters", this) {
        mosquitto_connect_callback_set(handle, [](mosquitto* connected, void* context, int) {
            std::vector<char*> texts;
            for (auto& text : static_cast<MosquittoConnection*>(context)->filters) {
                texts.push_back(text.data());
            }
            mosquitto_subscribe_multiple(connected, nullptr, static_cast<int>(texts.size()),
                                         texts.data(), 0, 0, nullptr);
        });
        mosquitto_message_callback_set(
            handle, [](mosquitto*, void* context, const mosquitto_message* message) {
                static_cast<MosquittoConnection*>(context)->handler(message->topic);
            });
    }

    std::vector<std::string> filters;
    const TopicHandler handler;
    MosquittoHandle handle;
};

// The descriptors of this process.
std::set<int> connectionsTo(int port) {
    std::set<int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/fd")) {
        const int descriptor = std::stoi(entry.path().filename());
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        const int rc = getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length);
        if (rc == 0 && ntohs(peer.sin_port) == port) found.insert(descriptor);
    }
    return found;
}

}  // namespace

PeerPtr kelClient(const Broker& broker, const std::string& name, Handing handing) {
    return std::make_unique<KelPeer>(broker, name, handing);
}

PeerPtr pahoWithWindow(const Broker& broker, const std::string& name, Handing handing) {
    return std::make_unique<PahoWindowPeer>(broker, name, handing);
}

PeerPtr pahoSendingAtOnce(const Broker& broker, const std::string& name) {
    const std::set<int> before = connectionsTo(broker.port());
    PeerPtr peer = pahoWithWindow(broker, name);
    for (const int descriptor : connectionsTo(broker.port())) {
        if (before.contains(descriptor)) continue;
        const int on = 1;
        setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    return peer;
}

PeerPtr pahoSynchronous(const Broker& broker, const std::string& name) {
    return std::make_unique<PahoSyncPeer>(broker, name);
}

PeerPtr mosquittoClient(const Broker& broker, const std::string& name) {
    return std::make_unique<MosquittoPeer>(broker, name);
}

std::function<Connection()> kelConnect(const Broker& broker,
                                       const std::vector<std::string>& filters,
                                       const TopicHandler& handler) {
    const auto client = kel::MqttClient::createInstance(broker.address(), "filters", "", "");
    const auto raw = [handler](MQTTClient_message*, const std::string& topic) { handler(topic); };
    for (const std::string& filter : filters) {
        client->Subscribe(kel::MqttClient::MessageHandler(raw), filter, 0);
    }
    return [client] {
        client->Connect({}, {});
        return Connection(client.get(), [client](void*) { client->Disconnect(); });
    };
}

std::function<Connection()> mosquittoConnect(const Broker& broker,
                                             const std::vector<std::string>& filters,
                                             const TopicHandler& handler) {
    const auto connection = std::make_shared<MosquittoConnection>(filters, handler);
    return [connection, &broker] {
        connection->handle.connect(broker);
        return Connection(connection);
    };
}

}  // namespace bench
