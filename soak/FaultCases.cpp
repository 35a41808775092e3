// Faults of the broker, the network, the disk and the clock: what was logged, and what went on.

#include <Poco/Environment.h>
#include <sched.h>

#include <ctime>
#include <filesystem>

#include "Broker.h"
#include "Command.h"
#include "LogLines.h"
#include "ScriptedBroker.h"
#include "Traffic.h"
#include "common/Config.h"
#include "common/Logger.h"

namespace soak {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kAFewSeconds(3);  // that a fault lasts

void pause() {
    std::this_thread::sleep_for(kAFewSeconds);
}

using Manner = ScriptedBroker::Manner;

const std::pair<const char*, Manner> kBadManners[] = {
    {"broker closes at once", Manner::kClosesAtOnce},
    {"broker answers garbage", Manner::kSendsGarbage},
    {"broker sends half a packet", Manner::kSendsHalfAPacket},
    {"broker is mute", Manner::kMute},
    {"broker never acknowledges", Manner::kAccepts},
    {"broker acknowledges twice", Manner::kAcknowledgesTwice}};

Result badBroker(Manner manner) {
    ScriptedBroker broker(Manner::kAcknowledges);
    Traffic traffic(broker.address());
    return survives(traffic, [&] {
        const int before = broker.sessions();
        broker.behave(manner);
        broker.drop();
        if (!await([&] { return broker.sessions() > before; }, std::chrono::seconds(60)))
            throw std::runtime_error("the broker met nobody");
        traffic.publishFor(kAFewSeconds, 5);
        broker.behave(Manner::kAcknowledges);
        broker.drop();
    });
}

Result realBroker(const std::function<void(Broker&)>& fault) {
    Broker broker;
    Traffic traffic(broker.address());
    return survives(traffic, [&] { fault(broker); });
}

// A fault that two shell lines make and mend, in a namespace of this process's own; `prepare` runs
// there first. @return why this machine cannot show it, or an empty text.
std::string enter(int kind, const std::string& prepare) {
    if (::unshare(kind) != 0) return "this user may not make a namespace";
    try {
        shell(prepare);
        return "";
    } catch (const std::exception& exc) {
        const std::string why = exc.what();  // the command, and what it said
        return why.substr(why.find('\n') + 1, why.size() - why.find('\n') - 2);
    }
}

Result network(const std::string& spoil, const std::string& mend) {
    const std::string why = enter(CLONE_NEWNET, "ip link set lo up; " + spoil + " && " + mend);
    if (!why.empty()) return Result::leftOut(why);
    return realBroker([&](Broker&) {
        shell(spoil);
        pause();
        shell(mend);
    });
}

// A file system of a megabyte where the library writes.
std::string enterSmallDisk() {
    return enter(CLONE_NEWNS, "mount --make-rprivate /; mkdir " + homeFolder() +
                                  "; mount -t tmpfs -o size=1m none " + homeFolder());
}

Result spoiltConfig(const std::string& spoil, const std::string& mend) {
    const CapturedLog log;
    const std::string why = enterSmallDisk();
    if (!why.empty()) return Result::leftOut(why);
    kel::initHttpOption();
    kel::loadConfig();
    const std::string before = contentOf(kel::configPath());
    shell("cd " + homeFolder() + "; " + spoil);
    kel::configInstance().setString("big", std::string(8192, 'y'));
    kel::saveConfig();
    const bool told = !kel::lastConfigError().empty();
    const bool kept = contentOf(kel::configPath()) == before && !before.empty();
    shell("cd " + homeFolder() + "; " + mend);
    kel::saveConfig();
    const bool saved = contentOf(kel::configPath()).find("yyyy") != std::string::npos;
    return {told && kept && saved, errorIn(log) + (kept ? "; the old file stays" : "; it is gone") +
                                       (saved ? "; the next save succeeds" : "; the next fails")};
}

Result fullUnderLog() {
    const std::string why = enterSmallDisk();
    if (!why.empty()) return Result::leftOut(why);
    silenceConsole();
    kel::loadLogging();
    LogLines lines(1);
    lines.log(0, 500);
    shell("cat /dev/zero >" + homeFolder() + "/filler || true");
    lines.log(0, 2000);
    shell("rm " + homeFolder() + "/filler");
    lines.log(0, 1);
    kel::deleteLogger();
    return {lines.allFound(), lines.missing() + " once there is room again"};
}

// libfaketime looks at this variable whenever the time is asked for.
void setClock(const char* offset) {
    Poco::Environment::set("FAKETIME", offset);
}

// The clock set forward by a day and back again, each with the set-up that comes every minute.
Result clockJumps() {
    const std::time_t now = std::time(nullptr);
    setClock("+1d");
    if (std::time(nullptr) < now + 80'000) return Result::leftOut("libfaketime is not installed");
    setClock("+0");
    silenceConsole();
    ScriptedBroker broker(Manner::kAcknowledges);
    Traffic traffic(broker.address());
    bool flows = traffic.flows();
    LogLines lines(3);
    for (const auto& [run, offset] : {std::pair{0, "+0"}, {1, "+1d"}, {2, "+0"}}) {
        setClock(offset);
        kel::loadLogging();
        lines.log(run, 500);
        flows = traffic.flows() && flows;
    }
    kel::deleteLogger();
    const fs::directory_iterator folder(homeFolder());
    const auto files = std::distance(begin(folder), end(folder));
    return {lines.allFound() && files == 2 && flows,
            lines.missing() + ", in " + std::to_string(files) + " dated files; MQTT " +
                (flows ? "goes on" : "does NOT")};
}

}  // namespace

std::vector<Case> faultCases() {
    std::vector<Case> all;
    const auto add = [&](const char* name, std::function<Result()> run) {
        all.push_back({"faults", name, [run = std::move(run)](double) { return run(); }});
    };
    for (const auto& [name, manner] : kBadManners)
        add(name, [manner = manner] { return badBroker(manner); });
    add("broker killed, and started again",
        [] { return realBroker([](Broker& broker) { broker.restart(); }); });
    add("broker stopped for 3 s", [] {
        return realBroker([](Broker& broker) {
            broker.suspend();
            pause();
            broker.resume();
        });
    });
    add("network cut for 3 s", [] { return network("ip link set lo down", "ip link set lo up"); });
    add("network delayed and lossy for 3 s", [] {
        return network("tc qdisc add dev lo root netem delay 50ms loss 5%",
                       "tc qdisc del dev lo root");
    });
    add("disk full under saveConfig",
        [] { return spoiltConfig("cat /dev/zero >filler || true", "rm filler"); });
    add("read-only under saveConfig",
        [] { return spoiltConfig("mount -o remount,ro .", "mount -o remount,rw ."); });
    add("disk full under the log", fullUnderLog);
    add("clock a day forward and back", clockJumps);
    all.back().environment =
        "LD_PRELOAD=libfaketimeMT.so.1 LD_LIBRARY_PATH=/usr/lib/x86_64-linux-gnu/faketime "
        "FAKETIME=+0 FAKETIME_NO_CACHE=1 FAKETIME_DONT_FAKE_MONOTONIC=1";
    return all;
}

}  // namespace soak
