// The smallest host that uses the main parts of the library. It greets itself over the broker and
// reports to its own web API that it has started.
#include <Poco/Event.h>
#include <Poco/Logger.h>
#include <common/Config.h>
#include <common/HttpServer.h>
#include <common/Library.h>
#include <common/Logger.h>
#include <common/MqttClient++.h>
#include <common/NotificationCenter.h>
#include <common/ThreadPool.h>
#include <common/Utils.h>
#include <common/WebApiBasic.h>
#include <common/WebHookBasic.h>

namespace minimal {

void say(const std::string& text) {
    poco_information(Poco::Logger::get(kel::logName()), text);
}

}  // namespace minimal

int main() {
    // Handlers may outlive main().
    static Poco::Event heard(Poco::Event::EVENT_MANUALRESET), reported;

    kel::loadLogging();     // console and ~/.local/share/kelhost/minimal_host-<date>.log
    kel::initHttpOption();  // defaults for the empty store, which become the file ...
    kel::configInstance().setString("mqtt.address", "tcp://127.0.0.1:1883");
    kel::configInstance().setBool("hook.enable", true);  // to port 9528 of this machine
    kel::loadConfig();  // ... unless there is a ~/.config/kelhost/minimal_host.json
    const std::string broker = kel::configInstance().getString("mqtt.address", "127.0.0.1");

    auto web = kel::WebApiBasic::instance();
    web->apiRegist("/index/api/on_server_started", [](auto&, auto&, auto&, auto& result) {
        result.set("code", 0);
        reported.set();
    });
    web->start(kel::serverSocket({"127.0.0.1", 9528}));  // throws if the port is taken
    kel::WebHookBasic::defaultWebHook()->reportServerStarted();

    // Any part of the host can listen to any other, without knowing it.
    auto& center = kel::NotificationCenter::defaultCenter();
    center.addObserver(kel::Observer::createInstance("main", [](auto*) { heard.set(); }));

    auto bus = kel::MqttClient::createInstance(broker, "minimal-host", "", "");
    const std::weak_ptr<kel::MqttClient> weak = bus;
    auto onHello = [&center](const Poco::JSON::Object& hello, std::string topic) {
        minimal::say(topic + ": " + hello.optValue<std::string>("text", ""));
        center.postNotification(new Poco::Notification);
    };
    auto onConnectResult = [=](int code) {
        auto client = weak.lock();
        if (code == 0 && client) client->Subscribe(onHello, "/kelbus/minimal/hello", 1);
        return true;  // after a failure: try again in 4 s
    };
    bus->Connect(onConnectResult, [](std::string) { return true; });  // lost: connect anew

    // Runs on the pool of the process; whoever publishes may be on any thread.
    kel::ThreadPool::defaultPool().start([bus] {
        Poco::JSON::Object::Ptr hello(new Poco::JSON::Object);
        hello->set("text", "hello");
        for (int i = 0; i < 20 && !heard.tryWait(500); ++i) {
            bus->PublishMessage(kel::jsonToString(hello), "/kelbus/minimal/hello", 1, 0, 0);
        }
    });
    const bool answered = heard.tryWait(10000) && reported.tryWait(10000);

    web->stop();
    bus->Disconnect();
    bus.reset();
    kel::stopLibrary();   // waits for the threads of the library
    kel::deleteLogger();  // last
    return answered ? 0 : 1;
}
