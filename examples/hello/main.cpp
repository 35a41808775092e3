// A first host: it greets itself over the broker and ends when it has heard that.
#include <Poco/Event.h>
#include <common/Config.h>
#include <common/Logger.h>
#include <common/MqttClient++.h>

int main() {
    static Poco::Event heard;  // static, because handlers may outlive main()
    kel::loadLogging();        // console, and ~/.local/share/kelhost/hello-<date>.log
    kel::configInstance().setString("mqtt.address", "tcp://127.0.0.1:1883");
    kel::loadConfig();  // reads ~/.config/kelhost/hello.json, or writes it where there is none
    const std::string broker = kel::configInstance().getString("mqtt.address", "");
    auto bus = kel::MqttClient::createInstance(broker, "hello", "", "");
    auto onHello = [](const Poco::JSON::Object&, std::string) { heard.set(); };
    bus->Connect([](int) { return true; }, [](std::string) { return true; });  // and keeps at it
    bus->Subscribe(onHello, "/hello/world", 1);
    while (!heard.tryWait(500))
        bus->PublishMessage(R"({"text": "hello"})", "/hello/world", 1, 0, 0);
    kel::deleteLogger();
}
