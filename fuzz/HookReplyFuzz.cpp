// What a management endpoint sends in reply to a hook. The hook's callback is called in any case.

#include <Poco/Exception.h>
#include <Poco/Net/ServerSocket.h>

#include <future>

#include "Fuzz.h"
#include "common/Utils.h"
#include "common/WebHookBasic.h"

namespace {

void answer(Poco::Net::ServerSocket& server, const std::uint8_t* data, std::size_t size) {
    Poco::Net::StreamSocket peer = server.acceptConnection();
    char request[4096];
    try {
        peer.receiveBytes(request, sizeof request);
        peer.sendBytes(data, static_cast<int>(size));
        peer.shutdownSend();
        while (peer.receiveBytes(request, sizeof request) > 0) continue;
    } catch (const Poco::IOException&) {
        // The hook has closed already.
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Surroundings surroundings;
    static Poco::Net::ServerSocket server(Poco::Net::SocketAddress("127.0.0.1", 0));
    static const auto hook = kel::WebHookBasic::createInstance();
    const auto called = std::make_shared<std::promise<void>>();
    hook->doHttpRequest("http://" + server.address().toString() + "/",
                        [called](auto, Poco::JSON::Object& reply) {
                            kel::jsonToString(new Poco::JSON::Object(reply));
                            called->set_value();  // throws when it is called twice
                        });
    answer(server, data, size);
    const auto end = called->get_future().wait_for(std::chrono::seconds(30));
    fuzz::check(end == std::future_status::ready, "the callback is not called");
    return 0;
}
