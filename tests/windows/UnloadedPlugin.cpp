// A plug-in that uses every part of the library, for UnloadHost to load and unload.

#include <Poco/Event.h>
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

constexpr long kPatience = 20000;  // milliseconds
const char* const kTopic = "/unload/hello";

struct Parts {
    Poco::Event connected, heard, reported;
    std::shared_ptr<kel::MqttClient> bus;
};

// Handlers hold the parts themselves: one may still run while they are given up.
std::shared_ptr<Parts>& parts() {
    static std::shared_ptr<Parts> instance;
    return instance;
}

unsigned short serve(const std::shared_ptr<Parts>& all) {
    const auto socket = kel::serverSocket({"127.0.0.1", 0});
    const auto api = kel::WebApiBasic::instance();
    api->apiRegist("/alive");
    api->apiRegist("/report", [all](auto&, auto&, const auto&, auto& result) {
        result.set("code", 0);
        all->reported.set();
    });
    api->start(socket);
    kel::configInstance().setBool("hook.enable", true);
    kel::configInstance().setString("hook.on_server_started",
                                    "http://" + socket.address().toString() + "/report");
    kel::WebHookBasic::defaultWebHook()->reportServerStarted();
    return socket.address().port();
}

void connect(const std::shared_ptr<Parts>& all, const std::string& broker) {
    all->bus = kel::MqttClient::createInstance(broker, "unloaded", "", "");
    all->bus->Subscribe([all](const auto&, const std::string&) { all->heard.set(); }, kTopic, 1);
    const auto onConnect = [all](int code) {
        if (code == 0) all->connected.set();
        return true;
    };
    all->bus->Connect(onConnect, [](const std::string&) { return true; });
    all->connected.wait(kPatience);
    kel::ThreadPool::defaultPool().start(
        [bus = all->bus] { bus->PublishMessage(R"({"text": "hello"})", kTopic, 1, 0, 0); });
    all->heard.wait(kPatience);
}

}  // namespace

// Returns the port of the web API once a message and a report have made their way; 0 on failure.
PLUGIN_API unsigned short startEverything(const char* broker) {
    try {
        kel::loadLogging();
        kel::initHttpOption();
        kel::loadConfig();
        parts() = std::make_shared<Parts>();
        const unsigned short port = serve(parts());
        connect(parts(), broker);
        parts()->reported.wait(kPatience);
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
    parts().reset();
    kel::stopLibrary();
}
