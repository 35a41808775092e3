// A plug-in that serves a web API while it is loaded.

#include <common/Library.h>
#include <common/WebApiBasic.h>

extern "C" {

__attribute__((visibility("default"))) Poco::UInt16 serve() {
    const Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    kel::WebApiBasic::instance()->apiRegist("/plain");
    kel::WebApiBasic::instance()->start(socket);
    return socket.address().port();
}

__attribute__((visibility("default"))) void stop() {
    kel::stopLibrary();
}
}
