// Bytes from a broker to a client that has connected, subscribed and published. The first byte
// says whether the broker accepts the connection before it sends the rest and closes.

#include <Poco/Net/NetException.h>
#include <Poco/Net/ServerSocket.h>

#include <atomic>
#include <future>

#include "Fuzz.h"
#include "common/internal/mqtt/ConnectTurn.h"
#include "common/internal/mqtt/Connection.h"

namespace {

struct Client : kel::ConnectionEvents {
    void messageArrived(kel::Message message, bool) override {
        fuzz::check(message.payload != nullptr, "a message without payload");
    }
    void messageDelivered(int) override {}
    void sessionLost(const std::string&) override { lost.set_value(); }
    std::promise<void> lost;
};

void converse(Poco::Net::StreamSocket peer, const std::string& bytes) {
    char block[4096];
    peer.receiveBytes(block, sizeof block);
    if (bytes[0] % 2 != 0) peer.sendBytes("\x20\x02\x00\x00", 4);
    if (bytes[0] % 4 == 3) peer.receiveBytes(block, sizeof block);  // what the client sends
    peer.sendBytes(bytes.data() + 1, static_cast<int>(bytes.size() - 1));
    peer.shutdownSend();
    while (peer.receiveBytes(block, sizeof block) > 0) continue;
}

// Each connection gets the same: a refused client may try again with an older protocol.
void beBroker(Poco::Net::ServerSocket& server, const std::string& bytes,
              const std::atomic<bool>& over) {
    while (!over) {
        try {
            if (server.poll({0, 2000}, Poco::Net::Socket::SELECT_READ)) {
                converse(server.acceptConnection(), bytes);
            }
        } catch (const Poco::Net::NetException&) {
            // The client has closed already.
        }
    }
}

int connect(kel::Connection& connection, const kel::ConnectOptions& options,
            const std::shared_ptr<Client>& client) {
    const kel::ConnectTurn turn(0, {});
    return connection.connect(options, client);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Surroundings surroundings;
    static Poco::Net::ServerSocket server(Poco::Net::SocketAddress("127.0.0.1", 0));
    if (size == 0) return -1;
    std::atomic<bool> over{false};
    const auto broker = std::async(std::launch::async, beBroker, std::ref(server),
                                   fuzz::textOf(data, size), std::cref(over));
    const kel::ConnectOptions options{.address = "tcp://" + server.address().toString(),
                                      .clientId = "fuzz",
                                      .username = "",
                                      .password = ""};
    int rc = 0;
    const auto connection = kel::Connection::create(options, rc);
    const auto client = std::make_shared<Client>();
    if (connect(*connection, options, client) == 0) {
        if (data[0] % 4 == 3) {
            std::vector<int> qos{1};
            connection->publish("{}", "topic", 2, 0);
            connection->subscribe({"topic"}, qos);
        }
        const auto end = client->lost.get_future().wait_for(std::chrono::seconds(30));
        fuzz::check(end == std::future_status::ready, "the loss is not told");
    }
    connection->close();
    over = true;
    return 0;
}
