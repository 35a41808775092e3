// A host that ends with everything under way: argv[1] is the URL its hook reports to. It prints its
// port and ends when "/exit" has been requested; that request's handler returns later.

#include <Poco/Net/NetException.h>
#include <common/Config.h>
#include <common/HttpClient.h>
#include <common/Logger.h>
#include <common/WebApiBasic.h>
#include <common/WebHookBasic.h>

#include <future>
#include <iostream>

namespace {

// Whether the web API still accepts connections, as it does until the process ends.
bool accepts(const Poco::Net::SocketAddress& address) {
    try {
        Poco::Net::StreamSocket().connect(address, Poco::Timespan(0, 100000));
        return true;
    } catch (const Poco::Exception&) {
        return false;
    }
}

}  // namespace

int main(int, char** argv) {
    kel::loadLogging();
    kel::configInstance().setBool("hook.enable", true);
    kel::configInstance().setString("hook.on_server_started", argv[1]);
    std::promise<void> exiting;
    const auto api = kel::WebApiBasic::instance();
    const Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    api->apiRegist("/exit", [&](auto&, auto&, const auto&, auto& result) {
        const Poco::Net::SocketAddress address = socket.address();
        exiting.set_value();
        for (int i = 0; i < 200 && accepts(address); ++i) Poco::Thread::sleep(10);
        result.set("reply", "whole");
    });
    api->apiRegist("/echo", [](auto&, auto&, const auto&, auto& result) { result.set("a", 1); });
    api->start(socket);
    kel::WebHookBasic::defaultWebHook()->reportServerKeepalive();
    kel::HttpClient::defaultHttpClient()->doHttpRequest(argv[1], "{}", nullptr);
    std::cout << "port " << socket.address().port() << std::endl;
    exiting.get_future().wait();
    return 0;
}
