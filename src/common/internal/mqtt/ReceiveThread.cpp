// ReceiveThread.cpp - a connection of the process to itself that keeps the MQTT library at work.
//
//   state            who may touch it                        lock
//   keeper, farEnd   ensure(), stop(); farEnd's copies all   Keeper::mutex, across the connect
//
// The keeper is one more handle of the MQTT library. Its broker is a thread that lives for the
// connect only: it accepts that one connection, and nobody serves it afterwards. The keeper asks
// for no keep-alive. What the far end sends, answers to pings that were never sent, only wakes the
// receive thread.

#include "ReceiveThread.h"

#include <MQTTClient.h>
#include <Poco/Exception.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/UUIDGenerator.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <string_view>

#include "../log/UnitLog.h"
#include "../process/NeverDestroyed.h"

namespace kel {

namespace {

using Clock = std::chrono::steady_clock;
using Poco::Net::StreamSocket;

constexpr UnitLog log("src/common/MqttClient++");

constexpr int kAttempts = 3;
constexpr int kConnectSeconds = 5;
constexpr auto kThreadSurelyFailed = std::chrono::minutes(1);
constexpr auto kLookAgain = std::chrono::milliseconds(10);
constexpr auto kBetweenNudges = std::chrono::milliseconds(1);
constexpr int kNudges = 1000;

constexpr std::string_view kConnack("\x20\x02\x00\x00", 4);
constexpr std::string_view kPingAnswer("\xd0\x00", 2);
constexpr std::string_view kProxyAnswer("HTTP/1.1 200 OK\r\n\r\n");

void send(StreamSocket socket, std::string_view bytes) {
    socket.sendBytes(bytes.data(), static_cast<int>(bytes.size()));
}

std::string receive(StreamSocket socket) {
    char buffer[1024];
    const int length = socket.receiveBytes(buffer, sizeof buffer);
    return {buffer, static_cast<std::size_t>(length > 0 ? length : 0)};
}

// The broker of the keeper. Whoever else finds the port is turned away.
class OwnBroker {
public:
    explicit OwnBroker(std::string clientId) : _clientId(std::move(clientId)) {
        _thread = std::thread([this] { logExceptions(log, [this] { run(); }); });
    }
    ~OwnBroker() { finish(); }
    OwnBroker(const OwnBroker&) = delete;
    OwnBroker& operator=(const OwnBroker&) = delete;

    std::string address() const { return _server.address().toString(); }

    // The far end of the connection, once that is made.
    StreamSocket finish() {
        _ended = true;
        if (_thread.joinable()) _thread.join();
        return _farEnd;
    }

private:
    void run() {
        while (!_ended) {
            if (!_server.poll({0, 10000}, Poco::Net::Socket::SELECT_READ)) continue;
            StreamSocket peer = _server.acceptConnection();
            if (!logExceptions(log, [&] { greet(peer); })) peer.close();
        }
    }

    void greet(StreamSocket& peer) {
        peer.setReceiveTimeout({1, 0});
        std::string packet = receive(peer);
        // Where the environment names a proxy, the MQTT library asks this one.
        if (packet.compare(0, 8, "CONNECT ") == 0) {
            send(peer, kProxyAnswer);
            packet = receive(peer);
        }
        if (packet.find(_clientId) == std::string::npos) return peer.close();
        peer.setNoDelay(true);
        send(peer, kConnack);
        peer.setBlocking(false);
        _farEnd = peer;
    }

    const std::string _clientId;
    Poco::Net::ServerSocket _server{Poco::Net::SocketAddress("127.0.0.1", 0)};
    std::atomic<bool> _ended{false};
    StreamSocket _farEnd;  // the thread's until it has been joined
    std::thread _thread;
};

struct Keeper {
    static Keeper& instance() {
        static NeverDestroyed<Keeper> keeper;
        return *keeper;
    }

    Keeper() : clientId(Poco::UUIDGenerator::defaultGenerator().createRandom().toString()) {
        MQTTClient_create(&handle, "127.0.0.1", clientId.c_str(), MQTTCLIENT_PERSISTENCE_NONE,
                          nullptr);
        const auto ignore = [](void*, char* topic, int, MQTTClient_message* message) {
            MQTTClient_freeMessage(&message);
            MQTTClient_free(topic);
            return 1;
        };
        MQTTClient_setCallbacks(handle, nullptr, nullptr, ignore, nullptr);
    }

    bool isConnected() const { return MQTTClient_isConnected(handle) != 0; }

    bool connect() {
        OwnBroker broker(clientId);
        std::string address = "tcp://" + broker.address();
        const std::string proxy = "http://" + broker.address();
        char* const addresses[] = {address.data()};
        MQTTClient_connectOptions form = MQTTClient_connectOptions_initializer;
        form.keepAliveInterval = 0;
        form.connectTimeout = kConnectSeconds;
        form.MQTTVersion = MQTTVERSION_3_1_1;
        form.serverURIcount = 1;
        form.serverURIs = addresses;
        if (std::getenv("http_proxy")) form.httpProxy = proxy.c_str();
        const int rc = MQTTClient_connect(handle, &form);
        farEnd = broker.finish();
        return rc == 0;
    }

    // The one documented call whose result depends on it.
    bool threadRuns() {
        char* topic = nullptr;
        int length = 0;
        MQTTClient_message* message = nullptr;
        return MQTTClient_receive(handle, &topic, &length, &message, 0) != MQTTCLIENT_DISCONNECTED;
    }

    // A second thread must not be begun before the first. One that has not come up after a minute
    // is taken for one that the system has refused.
    void awaitThread(const ReceiveThread::GiveUp& giveUp) {
        const auto deadline = Clock::now() + kThreadSurelyFailed;
        while (!threadRuns() && !giveUp() && Clock::now() < deadline) {
            std::this_thread::sleep_for(kLookAgain);
        }
    }

    // Set at construction.
    const std::string clientId;
    MQTTClient handle = nullptr;

    std::mutex mutex;
    StreamSocket farEnd;  // guarded by mutex
};

}  // namespace

void ReceiveThread::prepare() {
    Keeper::instance();
}

bool ReceiveThread::ensure(const GiveUp& giveUp) {
    Keeper& keeper = Keeper::instance();
    const std::lock_guard<std::mutex> lock(keeper.mutex);
    bool runs = keeper.isConnected();
    logExceptions(log, [&] {
        for (int attempt = 0; !runs && attempt < kAttempts && !giveUp(); ++attempt) {
            runs = keeper.connect();
            if (!runs) keeper.awaitThread(giveUp);
        }
    });
    if (!runs && !giveUp()) log.error("the MQTT library's receive thread does not run");
    return runs;
}

void ReceiveThread::stop() {
    Keeper& keeper = Keeper::instance();
    const std::lock_guard<std::mutex> lock(keeper.mutex);
    if (!keeper.isConnected()) return;
    MQTTClient_disconnect(keeper.handle, 0);
    keeper.farEnd = StreamSocket();
}

ReceiveThread::Awake::Awake() {
    logExceptions(log, [this] { _thread = std::thread([this] { nudge(); }); });
}

ReceiveThread::Awake::~Awake() {
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _end = true;
    }
    _ended.notify_all();
    if (_thread.joinable()) _thread.join();
}

void ReceiveThread::Awake::nudge() {
    Keeper& keeper = Keeper::instance();
    std::unique_lock<std::mutex> keeperLock(keeper.mutex);
    const StreamSocket farEnd = keeper.farEnd;
    keeperLock.unlock();
    std::unique_lock<std::mutex> lock(_mutex);
    for (int i = 0; i < kNudges; ++i) {
        if (_ended.wait_for(lock, kBetweenNudges, [this] { return _end; })) return;
        try {
            send(farEnd, kPingAnswer);
        } catch (const Poco::Exception&) {
            return;  // it is being stopped
        }
    }
}

}  // namespace kel
