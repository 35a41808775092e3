#include "common/Utils.h"

#include <Poco/Exception.h>
#include <Poco/JSON/JSONException.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <functional>
#include <future>
#include <optional>
#include <thread>
#include <tuple>

#include "CapturedLog.h"
#include "Sandbox.h"
#include "common/internal/json/ParseObject.h"
#include "common/internal/mqtt/BrokerHost.h"
#include "common/internal/net/ServerUri.h"

namespace fs = std::filesystem;
using namespace kel;

namespace {

using Ids = std::vector<unsigned long>;

void expectLogged(const CapturedLog& log, const std::string& text, int line) {
    EXPECT_EQ(log.count(text), 1u) << text;
    const Poco::Message message = log.find(text);
    EXPECT_EQ(message.getSourceLine(), line) << text;
    EXPECT_STREQ(message.getSourceFile(), "src/common/Utils");
    EXPECT_EQ(message.getPriority() == Poco::Message::PRIO_ERROR, line >= 163) << text;
}

// A process with the executable `copy`.
unsigned long start(const fs::path& copy, std::string original, std::string argument) {
    fs::copy_file(original, copy);
    char* argv[] = {original.data(), argument.data(), nullptr};
    ::pid_t pid = 0;
    EXPECT_EQ(::posix_spawn(&pid, copy.c_str(), nullptr, nullptr, argv, environ), 0);
    return static_cast<unsigned long>(pid);
}

Ids idsOf(const std::string& name) {
    Ids ids;
    const bool any = findProcessByName(name, ids);
    EXPECT_EQ(any, !ids.empty());
    EXPECT_EQ(any, findProcessByName("", ids)) << "ids from before count";
    return ids;
}

void allowPingsOfGroups(const std::string& range) {
    std::ofstream("/proc/sys/net/ipv4/ping_group_range") << range;
}

// Calls `action` with the address of a host that answers nothing, in a network of the calling
// thread's own, whose loopback answers.
void inOwnNetwork(const std::function<void(const std::string&)>& action) {
    const char* setUp =
        "exec 2>/dev/null; ip link set lo up && ip link add kel0 type veth peer name kel1 &&"
        "ip addr add 10.203.78.1/30 dev kel0 && ip link set kel0 up && ip link set kel1 up &&"
        "test -w /proc/sys/net/ipv4/ping_group_range";
    std::jthread([&] {
        if (::unshare(CLONE_NEWNET) != 0 || ::system(setUp) != 0) {
            GTEST_SKIP() << "a network namespace takes root and the command ip";
        }
        action("10.203.78.2");
    }).join();
}

std::list<std::string> list(const std::string& folder, ListFileType type, const std::string& key) {
    std::list<std::string> files;
    listFilesRecursively(Poco::Path(folder), files, type, key);
    files.sort();
    return files;
}

}  // namespace

TEST(Json, TextBecomesAnObjectAndSortedCompactTextAgain) {
    EXPECT_EQ(jsonToString(stringToJson(R"({ "b" : [1, {"z":null, "y":true}], "a" : "\u00e4" })")),
              "{\"a\":\"\u00e4\",\"b\":[1,{\"y\":true,\"z\":null}]}");
    EXPECT_EQ(jsonToString({}), "");
    EXPECT_EQ(makeJsonDefault(INT_MIN, "a\"b\\c\n"), R"({"code":-2147483648,"msg":"a\"b\\c\n"})");
    for (const char* text : {"", "{\"a\":", "no json", "[1,2]", "null"}) {
        const CapturedLog log;
        EXPECT_TRUE(stringToJson(text).isNull()) << text;
        expectLogged(log, "", 193);
    }
}

TEST(Json, TextsOverTheLimitsAreRefused) {
    const std::string text = R"({"a":[{},1,2.5],"b":"x"})";
    EXPECT_FALSE(parseJsonObject(text, {24, 3, 6}).isNull());
    for (const JsonLimits& tight : {JsonLimits{23, 3, 6}, {24, 2, 6}, {24, 3, 5}, {24, 3, 1}}) {
        EXPECT_THROW(parseJsonObject(text, tight), Poco::JSON::JSONException);
    }
}

TEST(Crc32, OfTwoPartsIsTheStandardCheckValue) {
    unsigned char digits[] = "123456789";
    EXPECT_EQ(GetCRC32(GetCRC32(0, digits, 4), digits + 4, 5), 0xCBF43926u);
}

TEST(Processes, AreFoundByTheirExactNameAlsoAfterAnUpdateAndEndedTheCallerLast) {
    const TempFolder folder, elsewhere;
    const std::string name = "kel-test-process-" + std::to_string(::getpid());
    const fs::path pipe = folder.path / "pipe";
    ::mkfifo(pipe.c_str(), 0600);
    // Started first, the caller would go first in the system's order, and leave the others.
    const Ids both{start(folder.path / name, KEL_CLEAN_BY_NAME, pipe),
                   start(elsewhere.path / name, "/bin/sleep", "60")};
    EXPECT_EQ(idsOf(name), both);
    for (const auto& path : {folder.path, elsewhere.path}) fs::remove(path / name);
    folder.write(name);
    EXPECT_EQ(idsOf(name), both) << "one replaced, one removed";
    for (const std::string& other : {"KEL" + name.substr(3), name + "0", name.substr(1),
                                     name.substr(0, 15), name + " (deleted)", std::string()}) {
        EXPECT_EQ(idsOf(other), Ids()) << other;
    }
    std::ofstream(pipe) << name;
    for (const unsigned long pid : both) {
        int status = 0;
        ::waitpid(static_cast<::pid_t>(pid), &status, 0);
        EXPECT_EQ(WTERMSIG(status), SIGKILL);
    }

    const CapturedLog log;
    cleanProcessById(both.back());
    expectLogged(log, "system command: kill -KILL " + std::to_string(both.back()), 157);
    expectLogged(log, "cannot kill process", 163);
    for (const unsigned several : {0u, 1u, unsigned{INT_MAX} + 1, UINT_MAX}) {
        cleanProcessById(several);
        expectLogged(log, "refused to end process id " + std::to_string(several), 163);
    }
    EXPECT_EQ(log.count("system command: "), 1u);
}

TEST(ListFiles, CollectsByTypeAndKeywordAlsoThroughLinksAndEachFolderOnce) {
    const TempFolder folder, linked;
    for (const char* name :
         {"mqtt_a.dll", "MQTT_a.dll", "x_mqtt.dll", "mqtt_a.DLL", "mqtt.dll.txt", "sub/mqtt_b.so",
          "sub/run.dll/other.dll", "mqtt_1.log", "mqtt_1.logs", "sub/mqtt_\xff\xfe.log"}) {
        folder.write(name);
    }
    linked.write("linked.log");
    const std::string root = folder.path, service = folder.write("sub/service%d", "", 0755);
    ::mkfifo((root + "/pipe").c_str(), 0755);
    fs::create_symlink(linked.path, root + "/link");
    fs::create_symlink(root, linked.path / "root");
    fs::create_symlink("nowhere", root + "/dangling.log");
    // Without the rule 2^20 visits.
    for (char name = 'a'; name < 'a' + 20; ++name) {
        const std::string level = root + "/levels/" + name, next(1, static_cast<char>(name + 1));
        fs::create_directories(level);
        for (const char* link : {"/1", "/2"}) fs::create_symlink("../" + next, level + link);
    }
    folder.write("levels/u/deep.log");

    const std::vector<std::tuple<ListFileType, std::string, std::list<std::string>>> cases = {
        {MicroService, "mqtt", {service}},
        {ListFileType::Plugin, "mqtt", {root + "/mqtt_a.dll", root + "/sub/mqtt_b.so"}},
        {ListFileType::Plugin, "other", {root + "/sub/run.dll/other.dll"}},
        {ListFileType::LogFile, "mqtt", {root + "/mqtt_1.log", root + "/sub/mqtt_\xff\xfe.log"}},
        {ListFileType::LogFile, "dang", {root + "/dangling.log"}},
        {ListFileType::LogFile, "linked", {root + "/link/linked.log"}},
        {static_cast<ListFileType>(LogFile + 99), "", {}},
    };
    const CapturedLog log;
    for (const auto& [type, key, expected] : cases) EXPECT_EQ(list(root, type, key), expected);
    EXPECT_EQ(list(root, LogFile, "deep").size(), 1u);
    EXPECT_EQ(log.count(""), 4u);
    expectLogged(log, "microservice: " + service, 37);
    expectLogged(log, "pulugin: " + root + "/mqtt_a.dll", 47);

    const auto listIn = [](const std::string& top) { list(top, ListFileType::LogFile, ""); };
    EXPECT_THROW(listIn(root + "/none"), Poco::FileNotFoundException);
    ::chmod((root + "/sub").c_str(), 0444);
    unprivileged([&] { EXPECT_THROW(listIn(root), Poco::FileAccessDeniedException); });
    ::chmod((root + "/sub").c_str(), 0755);
}

TEST(Ping, WhatCannotBePingedIsLoggedAsGiven) {
    const std::string ipv6 = "ping failed: only IPv4 hosts can be pinged";
    for (const std::string ip : {"tcp://[fe80::1]:1883", "[::1]", "::1", "tcp://host:port", ""}) {
        const CapturedLog log;
        EXPECT_FALSE(pingIp(ip));
        expectLogged(log, (ip.find("::") == ip.npos ? "" : ipv6) + ", ip: " + ip, 214);
    }
}

TEST(Ping, TwoRunSideBySideAlsoWithUnprivilegedSocketsOnly) {
    inOwnNetwork([](const std::string& silentHost) {
        const CapturedLog log;
        const auto bothPings = [&] {
            auto silent = std::async(std::launch::async, [&] { return pingIp(silentHost); });
            EXPECT_TRUE(pingIp("tcp://127.0.0.1:1883"));
            EXPECT_EQ(silent.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
            EXPECT_FALSE(silent.get());
        };
        bothPings();
        allowPingsOfGroups("0 0");
        unprivileged(bothPings);
        EXPECT_EQ(log.count(""), 0u);
        allowPingsOfGroups("1 0");
        unprivileged([] { EXPECT_FALSE(pingIp("127.0.0.1")); });
        expectLogged(log, "ping failed: open an ICMP socket: ", 214);
    });
}

TEST(BrokerHost, IsReadFromEveryAddressThatTheClientAccepts) {
    const std::vector<std::tuple<std::string, std::string, int>> cases = {
        {"tcp://edge:1884", "edge", 1884}, {"edge:1884", "edge", 1884},
        {"tcp://edge", "edge", 1883},      {"mqtt://u@edge/x", "edge", 1883},
        {"ssl://edge", "edge", 8883},      {"mqtts://[::1]", "::1", 8883},
        {"wss://edge/mqtt", "edge", 443},  {"ws://edge", "edge", 80},
        {"[::1]:1884", "::1", 1884},       {"fe80::1", "fe80::1", 1883},
        {"10.0.0.1", "10.0.0.1", 1883},
    };
    for (const auto& [uri, host, port] : cases) {
        EXPECT_EQ(hostOfServerUri(uri), host) << uri;
        EXPECT_EQ(portOfServerUri(uri), port) << uri;
    }
}

// As an ordinary user's process, which may not ping at all.
TEST(BrokerHost, AnswersWithoutAPingWhereItsPortAcceptsOrRefuses) {
    using namespace Poco::Net;
    ServerSocket accepting(SocketAddress("127.0.0.1", 0));
    std::optional<ServerSocket> onIpv6;
    try {
        onIpv6.emplace(SocketAddress("::1", 0));
    } catch (const Poco::Exception&) {
        // This system has no IPv6.
    }
    ServerSocket full;  // takes no further connection and does not say so, as a firewall would
    full.bind(SocketAddress("127.0.0.1", 0));
    full.listen(1);
    StreamSocket waiting[3];
    for (StreamSocket& socket : waiting) socket.connectNB(full.address());
    const auto uri = [](const ServerSocket& server, const char* host) {
        return host + (":" + std::to_string(server.address().port()));
    };
    const std::string refusing =
        uri(ServerSocket(SocketAddress("127.0.0.1", 0)), "tcp://127.0.0.1");
    const std::string silent = uri(full, "tcp://127.0.0.1");
    const auto answers = [](const std::string& at) { return brokerHostAnswers(at, pingIp); };
    const CapturedLog log;
    unprivileged([&] {
        EXPECT_TRUE(answers(uri(accepting, "tcp://localhost")));
        EXPECT_TRUE(!onIpv6 || answers(uri(*onIpv6, "[::1]")));
        EXPECT_TRUE(answers(refusing));
        EXPECT_EQ(log.count(""), 0u) << "no ping was tried";
        EXPECT_EQ(answers(silent), pingIp(silent));
    });
    EXPECT_EQ(answers(silent), pingIp(silent));
    EXPECT_FALSE(answers("tcp://no-such-host.invalid:1883"));
    EXPECT_FALSE(answers("tcp://host:port"));

    const auto refuses = [](const std::string& address) {
        return brokerPortRefuses(address, std::chrono::milliseconds(200));
    };
    EXPECT_TRUE(refuses(refusing));
    EXPECT_FALSE(refuses(silent));
    EXPECT_FALSE(refuses(uri(accepting, "localhost"))) << "whichever other address refuses";
    EXPECT_FALSE(refuses("tcp://no-such-host.invalid:1883"));

    // One descriptor is left, for the socket alone.
    const int unused = ::dup(0);
    ::close(unused);
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit scarce{static_cast<rlim_t>(unused) + 1, limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &scarce);
    EXPECT_NO_THROW(refuses(refusing));
    EXPECT_NO_THROW(answers(uri(accepting, "tcp://127.0.0.1")));
    ::setrlimit(RLIMIT_NOFILE, &limit);
}
