// A plug-in that uses every part of the library, for UnloadHost to load and unload.

#include <Poco/Event.h>
#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <common/Config.h>
#include <common/HttpServer.h>
#include <common/Library.h>
#include <common/Logger.h>
#include <common/MqttClient++.h>
#include <common/ThreadPool.h>
#include <common/WebApiBasic.h>
#include <common/WebHookBasic.h>

#include <exception>
#include <iostream>
#include <memory>
#include <string>

#ifdef _WIN32
#define PLUGIN_API extern "C" __declspec(dllexport)
#else
#define PLUGIN_API extern "C" __attribute__((visibility("default")))
#endif

namespace {

constexpr long kPatience = 20000, kPause = 100;  // milliseconds
const char* const kTopic = "/unload/hello";

struct Events {
    Poco::Event connected, heard, reported;
};
using EventsPtr = std::shared_ptr<Events>;

std::shared_ptr<kel::MqttClient> bus;

// The second start takes the port of the first, to which the hook reports.
unsigned short serve(const EventsPtr& events) {
    static unsigned short port = 0;
    const auto socket = kel::serverSocket({"127.0.0.1", port});
    port = socket.address().port();
    const auto api = kel::WebApiBasic::instance();
    api->apiRegist("/alive");
    api->apiRegist("/report", [events](auto&, auto&, const auto&, auto& result) {
        result.set("code", 0);
        events->reported.set();
    });
    api->start(socket);
    kel::configInstance().setBool("hook.enable", true);
    kel::configInstance().setString("hook.on_server_started",
                                    "http://" + socket.address().toString() + "/report");
    kel::WebHookBasic::defaultWebHook()->reportServerKeepalive();  // the first one at once
    return port;
}

// The client's callbacks hold it weakly, so that it is destroyed once the plug-in has released it.
void connect(const EventsPtr& events, const std::string& broker) {
    bus = kel::MqttClient::createInstance(broker, "unloaded", "", "");
    const std::weak_ptr<kel::MqttClient> weak = bus;
    const auto onHello = [events](const Poco::JSON::Object&, const std::string&) {
        events->heard.set();
    };
    const auto onConnect = [=](int code) {
        const auto client = weak.lock();
        if (code == 0 && client) client->Subscribe(onHello, kTopic, 1);
        events->connected.set();
        return true;
    };
    bus->Connect(onConnect, [](const std::string&) { return true; });
    events->connected.wait(kPatience);
    const auto sayHello = [client = bus] {
        client->PublishMessage(R"({"text": "hello"})", kTopic, 1, 0, 0);
    };
    // More than once: the first may be there before the subscription.
    for (long waited = 0; waited < kPatience; waited += kPause) {
        kel::ThreadPool::defaultPool().start(sayHello);
        if (events->heard.tryWait(kPause)) return;
    }
    throw Poco::TimeoutException("nothing is heard");
}

}  // namespace

// Returns the port of the web API once a message and a report have made their way; 0 on failure.
PLUGIN_API unsigned short startEverything(const char* broker) {
    try {
        kel::loadLogging();
        kel::initHttpOption();
        kel::loadConfig();
        const auto events = std::make_shared<Events>();
        const unsigned short port = serve(events);
        connect(events, broker);
        events->reported.wait(kPatience);
        Poco::Logger::get(kel::logName()).information("plug-in started", __FILE__, __LINE__);
        return port;
    } catch (const Poco::Exception& exc) {
        std::cerr << "plug-in: " << exc.displayText() << std::endl;
    } catch (const std::exception& exc) {
        std::cerr << "plug-in: " << exc.what() << std::endl;
    }
    return 0;
}

// The broker's connection is up and the server has a client when this is called.
PLUGIN_API void stopEverything() {
    bus.reset();
    kel::stopLibrary();
    kel::WebApiBasic::instance()->stop();
}
