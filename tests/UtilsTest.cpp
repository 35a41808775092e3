#include "common/Utils.h"

#include <Poco/Exception.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <climits>
#include <set>
#include <tuple>

#include "CapturedLog.h"
#include "Sandbox.h"

namespace fs = std::filesystem;
using namespace kel;

namespace {

void expectLogged(const CapturedLog& log, const std::string& text, int line,
                  Poco::Message::Priority priority = Poco::Message::PRIO_ERROR) {
    EXPECT_EQ(log.count(text), 1u) << text;
    EXPECT_EQ(log.find(text).getSourceLine(), line);
    EXPECT_EQ(log.find(text).getPriority(), priority);
    EXPECT_STREQ(log.find(text).getSourceFile(), "src/common/Utils");
}

// Copies of executables under names of the test's own.
class Processes : public ::testing::Test {
protected:
    unsigned start(const fs::path& original, const std::string& name, std::string argument) {
        std::string copy = _folder.write(name, "", 0755);
        fs::copy_file(original, copy, fs::copy_options::overwrite_existing);
        char* argv[] = {copy.data(), argument.data(), nullptr};
        ::pid_t pid = 0;
        EXPECT_EQ(::posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ), 0);
        return static_cast<unsigned>(pid);
    }
    unsigned startSleeper(const std::string& name) { return start("/bin/sleep", name, "60"); }

    // The signal that ended it, 0 for none.
    static int awaitEnd(unsigned pid) {
        int status = 0;
        ::waitpid(static_cast<::pid_t>(pid), &status, 0);
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }

    const std::string _name = "kel-process-" + std::to_string(::getpid());
    const TempFolder _folder;
};

using Names = std::multiset<std::string>;

class ListFiles : public ::testing::Test {
protected:
    Names list(ListFileType type, const std::string& keyword, const std::string& below = "") {
        std::list<std::string> files;
        listFilesRecursively(Poco::Path(_root + below), files, type, keyword);
        Names relative;
        for (const auto& file : files) relative.insert(file.substr(_root.size() + 1));
        return relative;
    }

    const TempFolder _folder;
    const std::string _root = _folder.path;
};

}  // namespace

TEST(Json, TextGoesToAnObjectAndBackSortedAndCompact) {
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

TEST(Crc32, MatchesTheStandardInOnePieceAndInParts) {
    unsigned char digits[] = "123456789";
    EXPECT_EQ(GetCRC32(0, digits, 9), 0xCBF43926u);
    EXPECT_EQ(GetCRC32(GetCRC32(0, digits, 4), digits + 4, 5), 0xCBF43926u);
}

TEST_F(Processes, AreFoundByTheirExactNameAlsoAfterAnUpdateAndEndedById) {
    const unsigned pid = startSleeper(_name);
    for (const char* state : {"running", "removed", "replaced"}) {
        std::vector<unsigned long> pids;
        EXPECT_TRUE(findProcessByName(_name, pids)) << state;
        EXPECT_EQ(pids, std::vector<unsigned long>{pid}) << state;
        EXPECT_TRUE(findProcessByName("", pids)) << "ids from before count";
        if (!fs::remove(_folder.path / _name)) _folder.write(_name);
    }
    for (const std::string& name : {"KEL" + _name.substr(3), _name + "0", _name.substr(1),
                                    _name.substr(0, 15), _name + " (deleted)", std::string()}) {
        std::vector<unsigned long> none;
        EXPECT_FALSE(findProcessByName(name, none)) << name;
    }
    const CapturedLog log;
    cleanProcessById(pid);
    EXPECT_EQ(awaitEnd(pid), SIGKILL);
    expectLogged(log, "system command: kill -KILL " + std::to_string(pid), 157,
                 Poco::Message::PRIO_INFORMATION);
    cleanProcessById(pid);
    expectLogged(log, "cannot kill process", 163);
    for (const unsigned several : {0u, 1u, unsigned{INT_MAX} + 1, UINT_MAX}) {
        cleanProcessById(several);
        expectLogged(log, "process id " + std::to_string(several), 163);
    }
    EXPECT_EQ(log.count("system command: "), 2u);
}

// Started first, the caller would go first in the system's order, and leave the others.
TEST_F(Processes, AllOfANameAreEndedTheCallerLastAndNoOthers) {
    const std::string pipe = _folder.path / "pipe";
    ::mkfifo(pipe.c_str(), 0600);
    const unsigned caller = start(KEL_CLEAN_BY_NAME, "caller/" + _name, pipe);
    const unsigned other = startSleeper("other/" + _name);
    const unsigned alike = startSleeper(_name + "x");
    EXPECT_LT(caller, other);
    std::ofstream(pipe) << _name;
    for (const unsigned pid : {caller, other}) EXPECT_EQ(awaitEnd(pid), SIGKILL);
    ::kill(static_cast<::pid_t>(alike), SIGTERM);
    EXPECT_EQ(awaitEnd(alike), SIGTERM);
}

TEST_F(ListFiles, CollectsByTypeAndKeyword) {
    for (const char* name : {"mqtt_a.dll", "MQTT_a.dll", "x_mqtt.dll", "mqtt_a.DLL", "mqtt.dll.txt",
                             "sub/mqtt_b.so", "sub/run.dll/other.dll", "mqtt_1.log", "mqtt_1.logs",
                             "sub/mqtt_\xff\xfe.log", "a%s b\\c.log"}) {
        _folder.write(name);
    }
    const std::string service = _folder.write("sub/service%d", "", 0755);
    ::mkfifo((_root + "/pipe").c_str(), 0755);
    fs::create_symlink("nowhere", _root + "/dangling.log");

    const std::vector<std::tuple<ListFileType, std::string, Names>> cases = {
        {ListFileType::MicroService, "mqtt", {"sub/service%d"}},
        {ListFileType::Plugin, "mqtt", {"mqtt_a.dll", "sub/mqtt_b.so"}},
        {ListFileType::Plugin, "other", {"sub/run.dll/other.dll"}},
        {ListFileType::LogFile, "mqtt", {"mqtt_1.log", "sub/mqtt_\xff\xfe.log"}},
        {ListFileType::LogFile, "a%s b\\", {"a%s b\\c.log"}},
        {ListFileType::LogFile, "dang", {"dangling.log"}},
        {static_cast<ListFileType>(3), "", {}},
    };
    const CapturedLog log;
    for (const auto& [type, keyword, expected] : cases) {
        EXPECT_EQ(list(type, keyword), expected) << static_cast<int>(type) << " " << keyword;
    }
    EXPECT_EQ(log.count(""), 4u);
    expectLogged(log, "microservice: " + service, 37, Poco::Message::PRIO_INFORMATION);
    expectLogged(log, "pulugin: " + _root + "/mqtt_a.dll", 47, Poco::Message::PRIO_INFORMATION);
}

TEST_F(ListFiles, FollowsLinksButNotInCircles) {
    _folder.write("top/sub/a.log");
    fs::create_symlink("..", _root + "/top/up");
    fs::create_symlink(_root, _root + "/top/sub/root");
    fs::create_symlink("self", _root + "/self");
    fs::create_symlink("top/sub", _root + "/other");
    EXPECT_EQ(list(ListFileType::LogFile, ""), (Names{"top/sub/a.log", "other/a.log"}));
    // Entered in the middle, the way up leads to the start again.
    EXPECT_EQ(list(ListFileType::LogFile, "", "/top/sub").count("top/sub/a.log"), 1u);
}

TEST_F(ListFiles, ThrowsForAMissingOrUnreadableDirectory) {
    EXPECT_THROW(list(ListFileType::LogFile, "", "/none"), Poco::FileNotFoundException);
    fs::create_directories(_root + "/sub/sub");
    for (const ::mode_t mode : {0000, 0444}) {
        ::chmod((_root + "/sub").c_str(), mode);
        unprivileged([&] {
            EXPECT_THROW(list(ListFileType::LogFile, ""), Poco::FileAccessDeniedException);
        });
    }
    ::chmod((_root + "/sub").c_str(), 0755);
}

TEST(Ping, WhatCannotBePingedIsLoggedAsGiven) {
    for (const std::string ip : {"tcp://[fe80::1]:1883", "[::1]", "::1", "tcp://host:port", ""}) {
        const std::string ipv6 = ip.find("::") == ip.npos ? "" : "only IPv4 hosts can be pinged";
        const CapturedLog log;
        EXPECT_FALSE(pingIp(ip));
        expectLogged(log, ipv6 + ", ip: " + ip, 214);
        EXPECT_EQ(log.count("ping failed: "), 1u);
    }
}
