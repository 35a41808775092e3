// Memory, threads and descriptors run out: an allocator that fails the n-th time, for every n that
// a path reaches; and limits that are reached while a broker is away.

#include <Poco/Logger.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>

#include "Broker.h"
#include "LogLines.h"
#include "Traffic.h"
#include "common/Config.h"
#include "common/HttpClient.h"
#include "common/Logger.h"
#include "common/WebApiBasic.h"

namespace soak {

// See Shortages.cpp.
extern std::atomic<long> untilFailure;
extern std::atomic<bool> threadsRefused;

namespace {

// For each n: `action` while the n-th allocation fails, then `works` with all of them.
// `action` returns once it is done, or the failure has come and `action` waits for nothing more.
Result failEach(const std::function<void()>& action, const std::function<bool()>& works) {
    constexpr long kMost = 3000;
    const CapturedLog log;
    long n = 1, thrown = 0;
    for (int spared = 0; spared < 3 && n <= kMost; ++n) {
        std::cerr << "allocation " << n << std::endl;  // the last one is the culprit
        untilFailure = n;
        try {
            action();
        } catch (const std::exception&) {
            ++thrown;
        }
        spared = untilFailure.exchange(0) > 0 ? spared + 1 : 0;
        if (!works())
            return {false,
                    "does not go on after failure " + std::to_string(n) + "; " + errorIn(log)};
    }
    return {n <= kMost, std::to_string(n - 4) + " places, " + std::to_string(thrown) +
                            " exceptions to the caller; " + errorIn(log) + "; went on each time"};
}

bool hasFailed() {
    return untilFailure == 0;
}

Result publishAndDispatch() {
    Broker broker;
    Traffic traffic(broker.address());
    std::atomic<int> arrived{0};
    const auto works = [&] {
        const int before = arrived;
        return await([&] {
            traffic.publish();
            return arrived > before;
        });
    };
    traffic.flows();
    traffic.client->Subscribe([&](const Poco::JSON::Object&, const std::string&) { ++arrived; },
                              "t", 1);
    if (!works()) return {false, "no messages at first"};
    const auto action = [&] {
        const int before = arrived;
        traffic.publish();
        await([&] { return arrived > before || hasFailed(); }, std::chrono::seconds(1));
    };
    return failEach(action, works);
}

Result request() {
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
    Result result = failEach(action, [&] {
        action();
        return status == 200;
    });
    api->stop();
    return result;
}

Result log() {
    silenceConsole();
    kel::loadLogging();
    const auto file = std::filesystem::directory_iterator(homeFolder())->path();
    LogLines lines(1);
    const auto logOne = [&](auto&& enough) {
        const auto before = std::filesystem::file_size(file);
        lines.log(0, 1);
        return await([&] { return enough() || std::filesystem::file_size(file) > before; });
    };
    Result result =
        failEach([&] { logOne(hasFailed); }, [&] { return logOne([] { return false; }); });
    kel::deleteLogger();
    lines.allFound();
    result.what += "; " + lines.missing();
    return result;
}

Result save() {
    kel::initHttpOption();
    kel::loadConfig();
    const std::string whole = contentOf(kel::configPath());
    return failEach(kel::saveConfig, [&] {
        const bool kept = contentOf(kel::configPath()) == whole;
        kel::saveConfig();
        return kept && kel::lastConfigError().empty();
    });
}

// What runs out does so while the broker is away; afterwards both are there again.
Result runsOut(const std::function<void(bool out)>& change) {
    Broker broker;
    Traffic traffic(broker.address());
    return survives(traffic, [&] {
        change(true);
        broker.kill();
        traffic.publishFor(std::chrono::seconds(3), 1'000'000);
        change(false);
        broker.start();
    });
}

std::function<void(bool)> limited(__rlimit_resource resource,
                                  const std::function<::rlim_t()>& few) {
    return [=](bool out) {
        ::rlimit limit{};
        ::getrlimit(resource, &limit);
        limit.rlim_cur = out ? few() : limit.rlim_max;
        ::setrlimit(resource, &limit);
    };
}

::rlim_t memoryInUse() {
    ::rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * static_cast<::rlim_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace

std::vector<Case> shortageCases() {
    const auto one = [](const char* name, std::function<Result()> run) {
        return Case{"shortages", name, [run = std::move(run)](double) { return run(); }};
    };
    return {one("allocation fails: publish, dispatch", publishAndDispatch),
            one("allocation fails: request, reply", request),
            one("allocation fails: log line", log),
            one("allocation fails: saveConfig", save),
            one("no descriptors", [] { return runsOut(limited(RLIMIT_NOFILE, [] { return 3; })); }),
            one("no memory", [] { return runsOut(limited(RLIMIT_AS, memoryInUse)); }),
            one("no threads", [] { return runsOut([](bool out) { threadsRefused = out; }); })};
}

}  // namespace soak
