// Bytes from a broker to a client that connects, and may publish; one client for all
// inputs. The first byte says whether the broker accepts the connection before it sends the rest
// and closes, and whether the client sends something meanwhile.

#include <Poco/Exception.h>
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

struct Client : kel::ConnectionEvents {
    void messageArrived(kel::Message message, bool) override {
        fuzz::check(message.payload != nullptr, "a message without payload");
    }
    void messageDelivered(int) override {}
    void sessionLost(const std::string&) override { lost.set_value(); }
    std::promise<void> lost;
};

// Each connection gets the same: a refused client may try again with an older protocol.
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
        for (;;) {
            try {
                converse(_server.acceptConnection());
            } catch (const Poco::IOException&) {
                // The client has closed already.
            }
        }
    }

    void converse(Poco::Net::StreamSocket peer) {
        char block[4096];
        peer.receiveBytes(block, sizeof block);
        std::unique_lock<std::mutex> lock(_mutex);
        const std::string bytes = _bytes;
        lock.unlock();
        if ((bytes[0] & kAccepts) != 0) peer.sendBytes("\x20\x02\x00\x00", 4);
        if ((bytes[0] & kClientSends) == kClientSends) peer.receiveBytes(block, sizeof block);
        peer.sendBytes(bytes.data() + 1, static_cast<int>(bytes.size() - 1));
        peer.shutdownSend();
        while (peer.receiveBytes(block, sizeof block) > 0) continue;
    }

    Poco::Net::ServerSocket _server{Poco::Net::SocketAddress("127.0.0.1", 0)};
    std::mutex _mutex;
    std::string _bytes;  // guarded by _mutex
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Surroundings surroundings;
    static Broker& broker = *new Broker;  // its thread never ends
    static kel::ConnectOptions options;
    options.address = broker.address();
    options.clientId = "fuzz";
    static int rc = 0;
    static const auto connection = kel::Connection::create(options, rc);
    if (size == 0) return -1;
    broker.say(fuzz::textOf(data, size));
    const auto client = std::make_shared<Client>();
    {
        const kel::ConnectTurn turn(0, {});
        rc = connection->connect(options, client);
    }
    if (rc != 0) return 0;
    if ((data[0] & kClientSends) == kClientSends) connection->publish("{}", "topic", 2, 0);
    const auto end = client->lost.get_future().wait_for(std::chrono::seconds(30));
    fuzz::check(end == std::future_status::ready, "the loss is not told");
    return 0;
}
