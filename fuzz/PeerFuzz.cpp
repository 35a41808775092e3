// Bytes from a broker to a client that connects, and may publish; one client for all
// inputs. The first byte says whether the broker accepts the connection before it sends the rest
// and closes, and whether the client sends something meanwhile.

#include <Poco/Net/NetException.h>
#include <Poco/Net/ServerSocket.h>

#include <future>
#include <mutex>
#include <thread>

#include "Fuzz.h"
#include "common/internal/mqtt/ConnectTurn.h"
#include "common/internal/mqtt/Connection.h"

namespace {

constexpr int kAccepts = 1;
constexpr int kClientSends = 3;

constexpr int kConnackSize = 4;
constexpr const char* kConnack = "\x20\x02\x00\x00";

struct Client : kel::ConnectionEvents {
    void messageArrived(kel::Message message, bool) override {
        fuzz::check(message.payload != nullptr, "a message without payload");
    }
    void messageDelivered(int) override {}
    void sessionLost(const std::string&) override { lost.set_value(); }
    std::promise<void> lost;
};

// The first connection gets a ping's answer every millisecond: the MQTT library's receive thread
// looks for new connections once a second only, and whenever something arrives. Each other one gets
// the input: a refused client may try again with an older protocol.
class Broker {
public:
    Broker() { std::thread(&Broker::serve, this).detach(); }

    std::string address() const { return "tcp://" + _server.address().toString(); }

    void say(const std::string& bytes) {
        const std::lock_guard<std::mutex> lock(_mutex);
        _bytes = bytes;
    }

private:
    [[noreturn]] void serve() {
        std::thread(&Broker::tick, _server.acceptConnection()).detach();
        for (;;) {
            try {
                converse(_server.acceptConnection());
            } catch (const Poco::Net::NetException&) {
                // The client has closed already.
            }
        }
    }

    [[noreturn]] static void tick(Poco::Net::StreamSocket peer) {
        peer.sendBytes(kConnack, kConnackSize);
        for (;;) {
            peer.sendBytes("\xd0\x00", 2);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    void converse(Poco::Net::StreamSocket peer) {
        char block[4096];
        peer.receiveBytes(block, sizeof block);
        std::unique_lock<std::mutex> lock(_mutex);
        const std::string bytes = _bytes;
        lock.unlock();
        if ((bytes[0] & kAccepts) != 0) peer.sendBytes(kConnack, kConnackSize);
        if ((bytes[0] & kClientSends) == kClientSends) peer.receiveBytes(block, sizeof block);
        peer.sendBytes(bytes.data() + 1, static_cast<int>(bytes.size() - 1));
        peer.shutdownSend();
        while (peer.receiveBytes(block, sizeof block) > 0) continue;
    }

    Poco::Net::ServerSocket _server{Poco::Net::SocketAddress("127.0.0.1", 0)};
    std::mutex _mutex;
    std::string _bytes;  // guarded by _mutex
};

struct Session {
    explicit Session(const Broker& broker)
        : options{.address = broker.address(), .clientId = "fuzz", .username = "", .password = ""},
          connection(kel::Connection::create(options, rc)) {}

    bool connect(const std::shared_ptr<Client>& client) {
        const kel::ConnectTurn turn(0, {});
        return connection->connect(options, client) == 0;
    }

    kel::ConnectOptions options;
    int rc = 0;
    std::shared_ptr<kel::Connection> connection;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Surroundings surroundings;
    static Broker& broker = *new Broker;  // its threads never end
    static Session awake(broker), session(broker);
    static const bool connected = awake.connect(std::make_shared<Client>());
    fuzz::check(connected, "no connection at all");
    if (size == 0) return -1;
    broker.say(fuzz::textOf(data, size));
    const auto client = std::make_shared<Client>();
    if (!session.connect(client)) return 0;
    if ((data[0] & kClientSends) == kClientSends) session.connection->publish("{}", "topic", 2, 0);
    const auto end = client->lost.get_future().wait_for(std::chrono::seconds(30));
    fuzz::check(end == std::future_status::ready, "the loss is not told");
    return 0;
}
