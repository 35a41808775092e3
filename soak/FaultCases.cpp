// Faults of the broker, the network, the disk and the clock: what was logged, and what went on.

#include <Poco/Environment.h>
#include <Poco/Logger.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "Broker.h"
#include "Command.h"
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

// The same in a network of this process's own, which `before` and `after` change.
Result network(const std::string& before, const std::string& after) {
    if (::unshare(CLONE_NEWNET) != 0) return Result::leftOut("this user may not make a network");
    try {
        shell("ip link set lo up; " + before + " && " + after);
    } catch (const std::exception& exc) {
        const std::string why = exc.what();  // the command, and what it said
        return Result::leftOut(why.substr(why.find('\n') + 1, why.size() - why.find('\n') - 2));
    }
    return realBroker([&](Broker&) {
        shell(before);
        pause();
        shell(after);
    });
}

// A file system of a megabyte at `path`, in a mount namespace of this process's own.
bool mountSmall(const std::string& path) {
    fs::create_directories(path);
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("none", path.c_str(), "tmpfs", 0, "size=1m") == 0;
}

void fill(const std::string& folder) {
    std::ofstream out(folder + "/filler");
    while (out << std::string(4096, 'x') << std::flush) continue;
}

void freeAgain(const std::string& folder) {
    fs::remove(folder + "/filler");
}

void remount(const std::string& folder, unsigned long flags) {
    if (::mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | flags, nullptr) != 0)
        throw std::runtime_error("remount");
}

using Change = std::function<void(const std::string& folder)>;

Result spoiltConfig(const Change& spoil, const Change& mend) {
    const CapturedLog log;
    const std::string folder = homeFolder();
    if (!mountSmall(folder)) return Result::leftOut("this user may not mount");
    kel::initHttpOption();
    kel::loadConfig();
    const std::string before = contentOf(kel::configPath());
    spoil(folder);
    kel::configInstance().setString("big", std::string(8192, 'y'));
    kel::saveConfig();
    const bool told = !kel::lastConfigError().empty();
    const bool kept = contentOf(kel::configPath()) == before && !before.empty();
    mend(folder);
    kel::saveConfig();
    const bool saved = kel::lastConfigError().empty() &&
                       contentOf(kel::configPath()).find("yyyy") != std::string::npos;
    ::umount2(folder.c_str(), MNT_DETACH);
    return {told && kept && saved, errorIn(log) + (kept ? "; the old file stays" : "; it is gone") +
                                       (saved ? "; the next save succeeds" : "; the next fails")};
}

void logNumbered(int first, int count) {
    Poco::Logger& logger = Poco::Logger::get(kel::logName());
    for (int i = first; i < first + count; ++i)
        logger.information("numbered " + std::to_string(i) + " ", __FILE__, __LINE__);
}

// How many of the lines are in the files of the folder.
int numberedIn(const std::string& folder, int count) {
    std::string all;
    for (const auto& file : fs::directory_iterator(folder)) all += contentOf(file.path());
    int found = 0;
    for (int i = 0; i < count; ++i)
        found += all.find("numbered " + std::to_string(i) + " ") != all.npos;
    return found;
}

// 500 lines before the folder is spoilt, 2,000 while it is, and one after.
Result spoiltLog(const Change& spoil, const Change& mend) {
    constexpr int kBefore = 500, kWhile = 2000, kTotal = kBefore + kWhile + 1;
    const std::string folder = homeFolder();
    if (!mountSmall(folder)) return Result::leftOut("this user may not mount");
    silenceConsole();
    kel::loadLogging();
    logNumbered(0, kBefore);
    spoil(folder);
    logNumbered(kBefore, kWhile);
    mend(folder);
    logNumbered(kBefore + kWhile, 1);
    kel::deleteLogger();
    const int found = numberedIn(folder, kTotal);
    ::umount2(folder.c_str(), MNT_DETACH);
    return {found == kTotal, std::to_string(kTotal - found) + " of " + std::to_string(kTotal) +
                                 " lines lost; it goes on once the folder is as before"};
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
    int lines = 0;
    for (const char* offset : {"+0", "+1d", "+0"}) {
        setClock(offset);
        kel::loadLogging();
        logNumbered(lines, 500);
        lines += 500;
        flows = traffic.flows() && flows;
    }
    kel::deleteLogger();
    const std::string folder = homeFolder();
    const auto files = std::distance(fs::directory_iterator(folder), fs::directory_iterator());
    const int found = numberedIn(folder, lines);
    return {found == lines && files == 2 && flows,
            std::to_string(lines - found) + " of " + std::to_string(lines) + " lines lost, in " +
                std::to_string(files) + " dated files; MQTT " + (flows ? "goes on" : "does NOT")};
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
    const Change readOnly = [](auto& folder) { remount(folder, MS_RDONLY); };
    const Change writable = [](auto& folder) { remount(folder, 0); };
    add("disk full under saveConfig", [] { return spoiltConfig(fill, freeAgain); });
    add("read-only under saveConfig", [=] { return spoiltConfig(readOnly, writable); });
    add("disk full under the log", [] { return spoiltLog(fill, freeAgain); });
    add("clock a day forward and back", clockJumps);
    all.back().environment =
        "LD_PRELOAD=libfaketimeMT.so.1 LD_LIBRARY_PATH=/usr/lib/x86_64-linux-gnu/faketime "
        "FAKETIME=+0 FAKETIME_NO_CACHE=1 FAKETIME_DONT_FAKE_MONOTONIC=1";
    return all;
}

}  // namespace soak
