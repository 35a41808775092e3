// Bytes that a client sends to the web API. The server must answer or close; it goes on.

#include <Poco/Exception.h>
#include <Poco/Net/ServerSocket.h>

#include "Fuzz.h"
#include "common/WebApiBasic.h"

namespace {

Poco::Net::SocketAddress serve() {
    const Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    const auto api = kel::WebApiBasic::instance();
    api->apiRegist("/plain", [](auto& request, auto& response, const auto& params) {
        response.send() << request.getMethod() << params.size() << request.stream().rdbuf();
    });
    api->apiRegist("/json", [](auto&, auto&, const auto& params, auto& result) {
        for (const auto& [name, value] : params) result.set(name, value);
    });
    api->apiRegist("/body", [](auto&, auto&, const auto&, auto& result, const auto& body) {
        result.set("size", body.size());
    });
    api->start(socket);
    return socket.address();
}

// To the end of the connection. It comes: the server knows that nothing more will be sent.
std::size_t readAll(Poco::Net::StreamSocket& peer) {
    char block[4096];
    std::size_t total = 0;
    try {
        for (int length = 1; length > 0; total += static_cast<std::size_t>(length)) {
            length = peer.receiveBytes(block, sizeof block);
        }
    } catch (const Poco::IOException&) {
        // The server closed with bytes unread.
    }
    return total;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Surroundings surroundings;
    static const Poco::Net::SocketAddress address = serve();
    Poco::Net::StreamSocket peer(address);
    peer.setReceiveTimeout(Poco::Timespan(30, 0));  // beyond it: an exception nobody catches
    try {
        peer.sendBytes(data, static_cast<int>(size));
        peer.shutdownSend();
    } catch (const Poco::IOException&) {
        // The server has closed already.
    }
    readAll(peer);
    return 0;
}
