// A host that ends with everything under way: argv[1] is the URL its hook reports to, argv[2] that
// of a peer which takes a request in slowly. It prints its port and ends when "/exit" has been
// requested; that request's handler returns later.

#include <Poco/Exception.h>
#include <common/Config.h>
#include <common/HttpClient.h>
#include <common/Logger.h>
#include <common/WebApiBasic.h>
#include <common/WebHookBasic.h>

#include <future>
#include <iostream>

int main(int, char** argv) {
    kel::loadLogging();
    kel::configInstance().setBool("hook.enable", true);
    kel::configInstance().setString("hook.on_server_started", argv[1]);
    std::promise<void> exiting;
    const Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    const auto api = kel::WebApiBasic::instance();
    api->apiRegist("/exit", [&](auto&, auto&, const auto&, auto& result) {
        const Poco::Net::SocketAddress address = socket.address();
        exiting.set_value();
        result.set("reply", "whole");
        try {
            for (int i = 0; i < 200; ++i, Poco::Thread::sleep(10)) {
                Poco::Net::StreamSocket().connect(address, Poco::Timespan(0, 100000));
            }
        } catch (const Poco::Exception&) {  // nobody accepts any more: the process is ending
        }
    });
    api->start(socket);
    kel::WebHookBasic::defaultWebHook()->reportServerKeepalive();
    const auto client = kel::HttpClient::defaultHttpClient();
    client->doHttpRequest(argv[1], "{}", nullptr);
    client->doHttpRequest(argv[2], std::string(64 << 20, ' '), nullptr);
    std::cout << "port " << socket.address().port() << std::endl;
    exiting.get_future().wait();
    return 0;
}
