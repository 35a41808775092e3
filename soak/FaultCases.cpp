// Faults of the broker, the network, the disk and the clock; an allocator that fails the n-th time,
// for every n that a path reaches; limits that are reached while a broker is away. scripts/soak
// runs what spoils the network or the disk in namespaces that it has made.

#include <sys/resource.h>

#include <ctime>

#include "Broker.h"
#include "Command.h"
#include "ScriptedBroker.h"
#include "Soak.h"
#include "common/Config.h"
#include "common/HttpClient.h"
#include "common/WebApiBasic.h"

// See Shortages.cpp.
extern std::atomic<long> untilFailure;
extern std::atomic<bool> threadsRefused;

namespace {

using Manner = ScriptedBroker::Manner;

constexpr std::chrono::seconds kAFewSeconds(3);  // that a fault lasts

void outlives(Manner manner) {
    ScriptedBroker broker(Manner::kAcknowledges);
    Traffic traffic(broker.address());
    expectGoesOn(traffic, [&] {
        const int before = broker.sessions();
        broker.behave(manner);
        broker.drop();
        EXPECT_TRUE(await([&] { return broker.sessions() > before; }, std::chrono::seconds(60)));
        traffic.publish(5, kAFewSeconds);
        broker.behave(Manner::kAcknowledges);
        broker.drop();
    });
}

using Change = std::function<void(Broker&)>;

void outlives(const Change& spoil, const Change& mend) {
    Broker broker;
    Traffic traffic(broker.address());
    expectGoesOn(traffic, [&] {
        spoil(broker);
        std::this_thread::sleep_for(kAFewSeconds);
        mend(broker);
    });
}

// Shell lines that spoil the network and mend it.
void outlivesNetwork(const std::string& spoil, const std::string& mend) {
    outlives([&](Broker&) { shell(spoil); }, [&](Broker&) { shell(mend); });
}

// Shell lines in the folder of the configuration, which spoil it and mend it.
void keepsConfig(const std::string& spoil, const std::string& mend) {
    const CapturedLog log;
    kel::initHttpOption();
    kel::loadConfig();
    const std::string before = contentOf(kel::configPath());
    shell("cd " + homeFolder() + "; " + spoil);
    kel::configInstance().setString("big", std::string(8192, 'y'));
    kel::saveConfig();
    ASSERT_NE("", kel::lastConfigError());
    ASSERT_TRUE(!before.empty() && before == contentOf(kel::configPath())) << "the file changed";
    shell("cd " + homeFolder() + "; " + mend);
    kel::saveConfig();
    ASSERT_NE(std::string::npos, contentOf(kel::configPath()).find("yyyy"));
    row(errorIn(log), "; the old file stays; the next save succeeds");
}

void folderRemoved() {
    const CapturedLog log;
    kel::loadConfig();
    std::filesystem::remove_all(homeFolder());
    kel::saveConfig();
    ASSERT_NE("", kel::lastConfigError());
    std::filesystem::create_directory(homeFolder());
    kel::saveConfig();
    ASSERT_NE("", contentOf(kel::configPath()));
    row(errorIn(log), "; a save succeeds once the folder is there again");
}

void diskFullUnderLog() {
    silenceConsole();
    kel::loadLogging();
    LogLines lines(1);
    lines.log(0, 500);
    shell("cat /dev/zero >" + homeFolder() + "/filler || true");
    lines.log(0, 2000);
    shell("rm " + homeFolder() + "/filler");
    lines.log(0, 1);
    kel::deleteLogger();
    lines.expectAllFound();
}

// libfaketime looks at this variable whenever the time is asked for.
void setClock(const char* offset) {
    Poco::Environment::set("FAKETIME", offset);
}

// Each jump is followed by the set-up that comes every minute.
void clockJumps() {
    const std::time_t now = std::time(nullptr);
    setClock("+1d");
    ASSERT_GT(std::time(nullptr), now + 80'000);
    silenceConsole();
    ScriptedBroker broker(Manner::kAcknowledges);
    Traffic traffic(broker.address());
    LogLines lines(3);
    for (const auto& [run, offset] : {std::pair{0, "+0"}, {1, "+1d"}, {2, "+0"}}) {
        setClock(offset);
        kel::loadLogging();
        lines.log(run, 500);
        ASSERT_TRUE(traffic.flows());
    }
    kel::deleteLogger();
    lines.expectAllFound();
    ASSERT_EQ(2, entries(homeFolder()));
    row("two dated files; MQTT goes on");
}

// For each n: `action` while the n-th allocation fails, then `works` with all of them.
// `action` returns once it is done, or the failure has come and `action` waits for nothing more.
void failEach(const std::function<void()>& action, const std::function<bool()>& works) {
    constexpr long kMost = 3000;
    const CapturedLog log;
    long n = 1, thrown = 0;
    ASSERT_TRUE(works()) << "without a failure";
    for (int spared = 0; spared < 3; ++n) {
        ASSERT_LE(n, kMost) << "allocations without end";
        untilFailure = n;
        try {
            action();
        } catch (const std::exception&) {
            ++thrown;
        }
        spared = untilFailure.exchange(0) > 0 ? spared + 1 : 0;
        ASSERT_TRUE(works()) << "after allocation " << n << "; " << errorIn(log);
    }
    row(n - 4, " places, ", thrown, " exceptions to the caller; ", errorIn(log),
        "; went on each time");
}

void failInPublishAndDispatch() {
    Broker broker;
    Traffic traffic(broker.address());
    std::atomic<int> arrived{0};
    traffic.client->Subscribe([&](const Poco::JSON::Object&, const std::string&) { ++arrived; },
                              "t", 1);
    const auto action = [&] {
        const int before = arrived;
        traffic.publish();
        await([&] { return arrived > before || untilFailure == 0; }, std::chrono::seconds(1));
    };
    failEach(action, [&] {
        const int before = arrived;
        return await([&] {
            traffic.publish();
            return arrived > before;
        });
    });
}

void failInRequestAndReply() {
    const auto api = kel::WebApiBasic::instance();
    api->apiRegist("/echo", [](auto&, auto&, const auto&, auto& result, const auto& body) {
        result.set("size", body.size());
    });
    const Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    api->start(socket);
    const std::string url = "http://" + socket.address().toString() + "/echo";
    int status = 0;
    const auto action = [&] {
        status = 0;
        kel::HttpClient::defaultHttpClient()->doHttpRequestSync(
            url, R"({"a":1})", [&](auto answer, auto&) { status = answer; });
    };
    failEach(action, [&] {
        action();
        return status == 200;
    });
    api->stop();
}

void failInLogLine() {
    silenceConsole();
    kel::loadLogging();
    const auto file = std::filesystem::directory_iterator(homeFolder())->path();
    LogLines lines(1);
    const auto logOne = [&](bool mayFail) {
        const auto before = std::filesystem::file_size(file);
        lines.log(0, 1);
        return await([&] {
            return (mayFail && untilFailure == 0) || std::filesystem::file_size(file) > before;
        });
    };
    failEach([&] { logOne(true); }, [&] { return logOne(false); });
    kel::deleteLogger();
    lines.expectAllFound();
}

void failInSaveConfig() {
    kel::initHttpOption();
    kel::loadConfig();
    const std::string whole = contentOf(kel::configPath());
    failEach(kel::saveConfig, [&] {
        const bool kept = contentOf(kel::configPath()) == whole;
        kel::saveConfig();
        return kept && kel::lastConfigError().empty();
    });
}

// What runs out does so while the broker is away; afterwards both are there again.
void outlivesLack(const std::function<void(bool out)>& change) {
    Broker broker;
    Traffic traffic(broker.address());
    expectGoesOn(traffic, [&] {
        change(true);
        broker.kill();
        traffic.publish(1'000'000, kAFewSeconds);
        change(false);
        broker.start();
    });
}

void outlivesLimit(__rlimit_resource resource, const std::function<::rlim_t()>& few) {
    outlivesLack([&](bool out) {
        ::rlimit limit{};
        ::getrlimit(resource, &limit);
        limit.rlim_cur = out ? few() : limit.rlim_max;
        ::setrlimit(resource, &limit);
    });
}

::rlim_t memoryInUse() {
    ::rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * static_cast<::rlim_t>(::sysconf(_SC_PAGESIZE));
}

struct Fault {
    const char* name;
    std::function<void()> run;
};

const Fault kFaults[] = {
    {"broker_closes_at_once", [] { outlives(Manner::kClosesAtOnce); }},
    {"broker_answers_garbage", [] { outlives(Manner::kSendsGarbage); }},
    {"broker_sends_half_a_packet", [] { outlives(Manner::kSendsHalfAPacket); }},
    {"broker_is_mute", [] { outlives(Manner::kMute); }},
    {"broker_never_acknowledges", [] { outlives(Manner::kAccepts); }},
    {"broker_acknowledges_twice", [] { outlives(Manner::kAcknowledgesTwice); }},
    {"broker_killed_and_started_again", [] { outlives(&Broker::kill, &Broker::start); }},
    {"broker_stopped_for_3_s", [] { outlives(&Broker::suspend, &Broker::resume); }},
    {"network_cut_for_3_s", [] { outlivesNetwork("ip link set lo down", "ip link set lo up"); }},
    {"network_slow_and_lossy_for_3_s",
     [] {
         const std::string root = " dev lo root ";
         outlivesNetwork("tc qdisc add" + root + "netem delay 50ms loss 5%", "tc qdisc del" + root);
     }},
    {"disk_full_under_saveConfig",
     [] { keepsConfig("cat /dev/zero >filler || true", "rm filler"); }},
    {"read_only_under_saveConfig",
     [] { keepsConfig("mount -o remount,ro ..", "mount -o remount,rw .."); }},
    {"folder_removed_under_saveConfig", folderRemoved},
    {"disk_full_under_the_log", diskFullUnderLog},
    {"clock_a_day_forward_and_back", clockJumps},
    {"allocation_fails_in_publish_and_dispatch", failInPublishAndDispatch},
    {"allocation_fails_in_request_and_reply", failInRequestAndReply},
    {"allocation_fails_for_a_log_line", failInLogLine},
    {"allocation_fails_in_saveConfig", failInSaveConfig},
    {"no_descriptors_without_broker", [] { outlivesLimit(RLIMIT_NOFILE, [] { return 3; }); }},
    {"no_memory_without_broker", [] { outlivesLimit(RLIMIT_AS, memoryInUse); }},
    {"no_threads_without_broker", [] { outlivesLack([](bool out) { threadsRefused = out; }); }}};

class Faults : public ::testing::TestWithParam<Fault> {};

}  // namespace

TEST_P(Faults, Outlived) {
    GetParam().run();
}

INSTANTIATE_TEST_SUITE_P(, Faults, ::testing::ValuesIn(kFaults),
                         [](const auto& fault) { return fault.param.name; });
