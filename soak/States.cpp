// A module that SoakHost loads: it brings the library into a state, and out of it again.

#include <Poco/Logger.h>
#include <signal.h>
#include <unistd.h>

#include <functional>
#include <future>
#include <map>
#include <memory>
#include <string_view>
#include <thread>

#include "common/Config.h"
#include "common/HttpClient.h"
#include "common/HttpServer.h"
#include "common/Library.h"
#include "common/Logger.h"
#include "common/MqttClient++.h"
#include "common/Termination.h"
#include "common/ThreadPool.h"
#include "common/WebApiBasic.h"
#include "common/WebHookBasic.h"

namespace {

// What a host would hold; never destroyed, so that the process ends with it in use.
struct Objects {
    std::shared_ptr<kel::MqttClient> client;
    std::shared_ptr<kel::WebHookBasic> hook;
    Poco::Net::ServerSocket mute;
    Poco::Net::StreamSocket peer;
    std::promise<void> served;
};
Objects& objects = *new Objects;

// The address of a peer that accepts and says nothing.
std::string blackHole() {
    objects.mute = kel::serverSocket({"127.0.0.1", 0});
    return objects.mute.address().toString();
}

void connect(const std::string& address) {
    const auto always = [](auto&&...) { return true; };
    objects.client = kel::MqttClient::createInstance("tcp://" + address, "ending", "", "");
    objects.client->Connect(always, always);
}

void exchangeMessages(const std::string& broker) {
    connect(broker);
    while (!objects.client->PublishMessage("{}", "t", 0, 0, 0)) std::this_thread::yield();
    objects.client->Subscribe([](MQTTClient_message*, const std::string&) {}, "t", 1);
    for (int i = 0; i < 500; ++i) objects.client->PublishMessage("{}", "t", i % 3, 0, 0);
}

void request(const std::string&) {
    const std::string url = "http://" + blackHole() + "/";
    for (int i = 0; i < 3; ++i)
        kel::HttpClient::defaultHttpClient()->doHttpRequest(url, [](auto, auto&) {});
}

void serve(const std::string&) {
    const auto socket = kel::serverSocket({"127.0.0.1", 0});
    const auto api = kel::WebApiBasic::instance();
    api->apiRegist("/slow", [](auto&, auto&, const auto&, auto& result) {
        objects.served.set_value();
        ::usleep(200'000);
        result.set("late", true);
    });
    api->start(socket);
    objects.peer.connect(socket.address());
    objects.peer.sendBytes("GET /slow HTTP/1.1\r\n\r\n", 22);
    objects.served.get_future().wait();
}

void startTimer(const std::string&) {
    kel::configInstance().setBool("hook.enable", true);
    objects.hook = kel::WebHookBasic::createInstance();
    objects.hook->reportServerKeepalive();
}

void startTasks(const std::string&) {
    for (int i = 0; i < 8; ++i) kel::ThreadPool::defaultPool().start([] { ::usleep(200'000); });
}

void flood(const std::string&) {
    for (int i = 0; i < 200'000; ++i)
        Poco::Logger::get(kel::logName()).information("flood", __FILE__, __LINE__);
}

// Every generation of the file is of one value.
void save(const std::string& value) {
    for (int i = 0; i < 200; ++i)
        kel::configInstance().setString("soak.key" + std::to_string(i), value);
    if (kel::configPath().empty()) kel::loadConfig();  // the first file is complete too
    kel::saveConfig();
}

[[noreturn]] void saveUntilKilled(const std::string&) {
    ::alarm(60);  // where nobody is left to kill it
    for (auto generation = ::getpid() * 1000L;; ++generation) save(std::to_string(generation));
}

using State = std::function<void(const std::string& broker)>;

const std::map<std::string_view, State>& states = *new std::map<std::string_view, State>{
    {"not connected",
     [](auto& broker) { objects.client = kel::MqttClient::createInstance(broker, "", "", ""); }},
    {"connecting to a black hole", [](auto&) { connect(blackHole()); }},
    {"under traffic", exchangeMessages},
    {"waiting for the broker", [](auto&) { connect("127.0.0.1:1"); }},
    {"requests in flight", request},
    {"requests being served", serve},
    {"timer running", startTimer},
    {"tasks running", startTasks},
    {"logging flooded", flood},
    {"saving", saveUntilKilled},
    {"saved once", save}};

}  // namespace

extern "C" void enter(const char* state, const char* broker) {
    kel::catchTerminationRequests();
    if (std::string_view(state).find("sav") != 0) kel::loadLogging();
    states.at(state)(broker);
}

// Releases everything in the middle of its work, and may stop the library.
extern "C" void leave(const char* given, const char* /*broker*/) {
    const std::string_view way = given;
    if (way == "SIGTERM") {
        ::raise(SIGTERM);
        kel::waitForTerminationRequest();
    }
    objects.client.reset();
    objects.hook.reset();
    kel::WebApiBasic::instance()->stop();
    if (way == "release") return;
    kel::stopLibrary();
    kel::deleteLogger();
}
