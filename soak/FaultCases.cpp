#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>

#include "Await.h"
#include "Broker.h"
#include "CapturedLog.h"
#include "SmallBroker.h"
#include "Soak.h"
#include "common/Config.h"
#include "common/Logger.h"
#include "common/MqttClient++.h"
#include "common/ThreadPool.h"
#include "common/Utils.h"

namespace soak {

namespace {

constexpr auto kAlways = [](auto&&...) { return true; };
constexpr std::chrono::seconds kBack{120};

// The first error, shortened, and how many there were.
std::string errorsIn(const CapturedLog& log) {
    for (const char* text : {"Failed", "lost", "rror"}) {
        const std::string line = log.find(text).getText();
        if (!line.empty()) return "logged \"" + line.substr(0, 70) + "\"";
    }
    return "nothing logged as failed";
}

using ClientPtr = std::shared_ptr<kel::MqttClient>;

struct Traffic {
    explicit Traffic(const std::string& address)
        : client(kel::MqttClient::createInstance(address, "faults", "", "")) {
        client->SetDeliveryCompleteCallback([this](int) { ++confirmed; });
        client->Connect(kAlways, kAlways);
    }

    // Whether a message is confirmed that is published from now on.
    bool flows() {
        const long before = confirmed;
        return await(
            [&] {
                if (client->PublishMessage("{}", "t", 1, 0, 0)) ++accepted;
                return confirmed > before;
            },
            kBack);
    }

    std::atomic<long> confirmed{0};
    long accepted = 0;
    ClientPtr client;
};

Result summary(const CapturedLog& log, const Traffic& traffic, bool right) {
    return {right, errorsIn(log) + "; " + std::to_string(traffic.accepted) + " accepted, " +
                       std::to_string(traffic.confirmed.load()) + " confirmed; " +
                       (right ? "went on" : "did NOT go on")};
}

Result badBroker(SmallBroker::Manner manner) {
    const CapturedLog log;
    SmallBroker broker;
    Traffic traffic(broker.address());
    bool right = traffic.flows();
    broker.behave(manner);
    const int before = broker.sessions();
    broker.drop();
    await([&] { return broker.sessions() > before; }, kBack);
    for (int i = 0; i < 5 && manner != SmallBroker::Manner::kNeverAcks; ++i) {
        if (traffic.client->PublishMessage("{}", "t", 1, 0, 0)) ++traffic.accepted;
    }
    broker.behave(SmallBroker::Manner::kWell);
    broker.drop();
    right = traffic.flows() && right;
    return summary(log, traffic, right);
}

Result realBroker(const std::function<void(Broker&)>& fault) {
    const CapturedLog log;
    Broker broker;
    Traffic traffic(broker.address());
    bool right = traffic.flows();
    fault(broker);
    right = traffic.flows() && right;
    return summary(log, traffic, right);
}

// A file system of a megabyte at `path`, in a mount namespace of this process's own.
bool mountSmall(const std::string& path) {
    std::filesystem::create_directories(path);
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("none", path.c_str(), "tmpfs", 0, "size=1m") == 0;
}

void fill(const std::string& file) {
    std::ofstream out(file);
    while (out << std::string(4096, 'x') << std::flush) continue;
}

std::string content(const std::string& file) {
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
}

Result diskFullUnderConfig(bool readOnly) {
    const CapturedLog log;
    const std::string folder = std::string(::getenv("XDG_CONFIG_HOME")) + "/kelhost";
    if (!mountSmall(folder)) return {true, "left out: this user may not mount"};
    kel::initHttpOption();
    kel::loadConfig();
    const std::string before = content(kel::configPath());
    if (readOnly) {
        ::mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr);
    } else {
        fill(folder + "/filler");
    }
    kel::configInstance().setString("big", std::string(8192, 'y'));
    kel::saveConfig();
    const std::string why = kel::lastConfigError();
    const bool kept = content(kel::configPath()) == before && !before.empty();
    if (readOnly) ::mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT, nullptr);
    std::filesystem::remove(folder + "/filler");
    kel::saveConfig();
    ::umount2(folder.c_str(), MNT_DETACH);
    const bool right = kept && !why.empty() && kel::lastConfigError().empty();
    return {right, errorsIn(log) + (kept ? "; the old file stays" : "; the old file is gone") +
                       (right ? "; the next save succeeds" : "; the next save fails")};
}

Result diskFullUnderLog(double) {
    const std::string folder = std::string(::getenv("XDG_DATA_HOME")) + "/kelhost";
    if (!mountSmall(folder)) return {true, "left out: this user may not mount"};
    ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
    kel::loadLogging();
    fill(folder + "/filler");
    constexpr int kLines = 2000;
    Poco::Logger& logger = Poco::Logger::get(kel::logName());
    for (int i = 0; i < kLines; ++i)
        logger.information("full " + std::to_string(i), __FILE__, __LINE__);
    std::filesystem::remove(folder + "/filler");
    logger.information("room again", __FILE__, __LINE__);
    kel::deleteLogger();
    int found = 0;
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
        std::istringstream in(content(file.path()));
        for (std::string line; std::getline(in, line);) found += line.find(":full ") != line.npos;
    }
    ::umount2(folder.c_str(), MNT_DETACH);
    return {found == kLines, std::to_string(kLines - found) + " of " + std::to_string(kLines) +
                                 " lines lost; the file has them once there is room"};
}

Result configCut(double) {
    const CapturedLog log;
    kel::initHttpOption();
    kel::initSSLOption();
    kel::loadConfig();
    const std::string whole = content(kel::configPath());
    const std::size_t size = whole.find_last_not_of(" \r\n") + 1;
    std::size_t refused = 0;
    for (std::size_t cut = 1; cut < size; ++cut) {
        std::ofstream(kel::configPath()) << whole.substr(0, cut);
        kel::configInstance().setInt("kept", static_cast<int>(cut));
        kel::loadConfig();
        const bool stays = content(kel::configPath()) == whole.substr(0, cut);
        const bool kept = kel::configInstance().getInt("kept", 0) == static_cast<int>(cut);
        if (!kel::lastConfigError().empty() && stays && kept) ++refused;
    }
    return {refused == size - 1, std::to_string(refused) + " of " + std::to_string(size - 1) +
                                     " lengths refused; file and store stay; " + errorsIn(log)};
}

// A resource runs out while the broker is away; afterwards both are there again.
Result exhausted(int resource, ::rlim_t few) {
    const CapturedLog log;
    Broker broker;
    Traffic traffic(broker.address());
    bool right = traffic.flows();
    ::rlimit old{};
    ::getrlimit(static_cast<__rlimit_resource>(resource), &old);
    const ::rlimit less{few, old.rlim_max};
    ::setrlimit(static_cast<__rlimit_resource>(resource), &less);
    broker.kill();
    await([&] { return log.count("Failed") > 0; }, std::chrono::seconds(10));
    ::setrlimit(static_cast<__rlimit_resource>(resource), &old);
    broker.start();
    right = traffic.flows() && right;
    return summary(log, traffic, right);
}

Result poolFull(double) {
    const CapturedLog log;
    kel::ThreadPool pool(1, 4, 60, 0);
    std::atomic<bool> go{false};
    int refused = 0;
    for (int i = 0; i < 10; ++i) {
        try {
            pool.start([&] { go.wait(false); });
        } catch (const Poco::Exception&) {
            ++refused;
        }
    }
    go = true;
    go.notify_all();
    pool.stop();
    return {refused == 6, std::to_string(refused) + " of 10 refused by a pool of 4; " +
                              std::to_string(pool.pendingTasks()) + " pending afterwards"};
}

}  // namespace

std::vector<Case> faultCases() {
    using Manner = SmallBroker::Manner;
    const auto bad = [](const char* name, Manner manner) {
        return Case{"faults", name, [manner](double) { return badBroker(manner); }};
    };
    const auto real = [](const char* name, std::function<void(Broker&)> fault) {
        return Case{"faults", name, [fault](double) { return realBroker(fault); }};
    };
    return {
        bad("broker closes at once", Manner::kClosesAtOnce),
        bad("broker sends garbage", Manner::kGarbage),
        bad("broker sends half a packet", Manner::kHalfPacket),
        bad("broker is mute", Manner::kMute),
        bad("broker never acknowledges", Manner::kNeverAcks),
        bad("broker acknowledges twice", Manner::kAcksTwice),
        real("broker killed, and started again", [](Broker& broker) { broker.restart(); }),
        real("broker stopped for 3 s",
             [](Broker& broker) {
                 broker.suspend();
                 ::sleep(3);  // the fault itself
                 broker.resume();
             }),
        {"faults", "disk full under saveConfig", [](double) { return diskFullUnderConfig(false); }},
        {"faults", "read-only under saveConfig", [](double) { return diskFullUnderConfig(true); }},
        {"faults", "disk full under the log", diskFullUnderLog},
        {"faults", "configuration cut at every byte", configCut},
        {"faults", "no descriptors", [](double) { return exhausted(RLIMIT_NOFILE, 3); }},
        {"faults", "pool full", poolFull}};
}

}  // namespace soak
