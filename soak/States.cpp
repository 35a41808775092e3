// A module that SoakHost loads: it brings the library into a state, and out of it again.

#include <Poco/Logger.h>
#include <Poco/Net/ServerSocket.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <memory>
#include <string_view>
#include <thread>

#include "common/Config.h"
#include "common/HttpClient.h"
#include "common/Library.h"
#include "common/Logger.h"
#include "common/MqttClient++.h"
#include "common/ThreadPool.h"
#include "common/WebHookBasic.h"

namespace {

// What a host would hold; never destroyed, so that the process ends with it in use.
struct Held {
    std::shared_ptr<kel::MqttClient> client;
    std::shared_ptr<kel::WebHookBasic> hook;
    std::unique_ptr<Poco::Net::ServerSocket> mute;
};
Held& held = *new Held;

// The address of a peer that accepts and says nothing.
std::string blackHole() {
    const Poco::Net::SocketAddress any("127.0.0.1", 0);
    held.mute = std::make_unique<Poco::Net::ServerSocket>(any);
    return held.mute->address().toString();
}

void connect(const std::string& address) {
    const auto always = [](auto&&...) { return true; };
    held.client = kel::MqttClient::createInstance("tcp://" + address, "ending", "", "");
    held.client->Connect(always, always);
}

void exchangeMessages(const std::string& broker) {
    connect(broker);
    while (!held.client->PublishMessage("{}", "t", 0, 0, 0)) std::this_thread::yield();
    held.client->Subscribe([](MQTTClient_message*, const std::string&) {}, "t", 1);
    for (int i = 0; i < 500; ++i) held.client->PublishMessage("{}", "t", i % 3, 0, 0);
}

void request(const std::string&) {
    const std::string url = "http://" + blackHole() + "/";
    for (int i = 0; i < 3; ++i)
        kel::HttpClient::defaultHttpClient()->doHttpRequest(url, [](auto, auto&) {});
}

void startTimer(const std::string&) {
    kel::configInstance().setBool("hook.enable", true);
    held.hook = kel::WebHookBasic::createInstance();
    held.hook->reportServerKeepalive();
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

[[noreturn]] void saveForEver(const std::string&) {
    for (auto generation = ::getpid() * 1000L;; ++generation) save(std::to_string(generation));
}

using State = std::function<void(const std::string& broker)>;

const std::map<std::string_view, State>& states = *new std::map<std::string_view, State>{
    {"not connected",
     [](auto& broker) { held.client = kel::MqttClient::createInstance(broker, "", "", ""); }},
    {"connecting to a black hole", [](auto&) { connect(blackHole()); }},
    {"under traffic", exchangeMessages},
    {"waiting for the broker", [](auto&) { connect("127.0.0.1:1"); }},
    {"requests in flight", request},
    {"timer running", startTimer},
    {"tasks running", startTasks},
    {"logging flooded", flood},
    {"saving", saveForEver},
    {"saved once", save}};

}  // namespace

extern "C" __attribute__((visibility("default"))) void enter(const char* state,
                                                             const char* broker) {
    if (std::string_view(state).find("sav") != 0) kel::loadLogging();
    states.at(state)(broker);
}

// Releases everything in the middle of its work, and may stop the library.
extern "C" __attribute__((visibility("default"))) void leave(bool stop) {
    held.client.reset();
    held.hook.reset();
    if (!stop) return;
    kel::stopLibrary();
    kel::deleteLogger();
}
