// The MQTT library's receive thread: there is one, from the first connect to the stop.

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>
#include <string_view>
#include <thread>

#include "MqttFixture.h"
#include "common/Library.h"

namespace {

constexpr auto kLate = std::chrono::seconds(2);  // the MQTT library waits 0.4 s
std::atomic<bool> lateNow{false};                // for the next thread that it begins

struct Begin {
    void* (*run)(void*);
    void* argument;
};

void* beginLate(void* opaque) {
    const auto* begin = static_cast<const Begin*>(opaque);
    std::this_thread::sleep_for(kLate);
    return begin->run(begin->argument);
}

bool belongsToMqttLibrary(void* (*run)(void*)) {
    Dl_info info{};
    return ::dladdr(reinterpret_cast<void*>(run), &info) != 0 &&
           std::string_view(info.dli_fname).find("paho") != std::string_view::npos;
}

}  // namespace

// Stands before the system's: on a busy machine a thread may begin as late as here.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*run)(void*), void* argument) {
    static const auto next =
        reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
    if (!lateNow || !belongsToMqttLibrary(run)) return next(thread, attributes, run, argument);
    lateNow = false;
    static Begin late;
    late = {run, argument};
    return next(thread, attributes, beginLate, &late);
}

namespace {

class MqttReceiveThreadTest : public MqttFixture {
protected:
    static std::set<std::string> receiveThreads() {
        std::set<std::string> found;
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            std::string name;
            std::getline(std::ifstream(task.path() / "comm") >> std::ws, name);
            if (name == "MQTTClient_run") found.insert(task.path().filename());
        }
        return found;
    }
};

}  // namespace

// Two of them would free each other's memory.
TEST_F(MqttReceiveThreadTest, ALateBeginningIsAwaited) {
    lateNow = true;
    const ClientPtr first = connected("edge-1"), second = connected("edge-2");
    EXPECT_FALSE(lateNow);
    EXPECT_EQ(1u, receiveThreads().size());
    EXPECT_EQ(0u, _log.count("Failed to connect"));
}

// A connect that has just begun would wait for nobody.
TEST_F(MqttReceiveThreadTest, OutlivesTheLastSession) {
    const Broker otherBroker;
    const ClientPtr client = connected("edge-1");
    const ClientPtr other =
        kel::MqttClient::createInstance(otherBroker.address(), "edge-2", "", "");
    const auto thread = receiveThreads();
    ASSERT_EQ(1u, thread.size());
    for (std::size_t round = 1; round <= 5; ++round) {
        const auto publish = [&] {
            while (client->PublishMessage("{}", "load", 0, 0, 0)) continue;
        };
        const std::jthread publishers[] = {std::jthread(publish), std::jthread(publish)};
        _broker.kill();  // found out by a publisher or by the receive thread
        other->Connect({}, {});
        ASSERT_TRUE(await([&] { return other->PublishMessage("{}", "out", 1, 0, 0); }));
        ASSERT_TRUE(_log.await("connection lost", round));
        other->Disconnect();
        _broker.start();
        client->Connect({}, {});
        ASSERT_TRUE(await([&] { return client->PublishMessage("{}", "out", 1, 0, 0); }));
        EXPECT_EQ(thread, receiveThreads());
    }
    client->Disconnect();
    kel::stopLibrary();
    EXPECT_TRUE(await([&] { return receiveThreads().empty(); }));
}
