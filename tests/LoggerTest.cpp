// Each test runs in a process of its own: logging is set up once per process.

#include "common/Logger.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/Exception.h>
#include <Poco/LocalDateTime.h>
#include <Poco/Logger.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <regex>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

Poco::Logger& hostLogger() {
    return Poco::Logger::get(kel::logName());
}

fs::path logDirectory() {
    return fs::path(::getenv("XDG_DATA_HOME")) / "kelhost";
}

// The day may change during a test.
std::vector<std::string> loggedLines() {
    std::vector<std::string> lines;
    for (const auto& file : fs::directory_iterator(logDirectory())) {
        std::ifstream in(file.path());
        for (std::string line; std::getline(in, line);) lines.push_back(line);
    }
    return lines;
}

std::size_t countOf(const std::string& ending) {
    const auto lines = loggedLines();
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const auto& line) { return line.ends_with(ending); }));
}

void logNumbered(int thread, int count) {
    for (int i = 0; i < count; ++i) {
        hostLogger().information("thread " + std::to_string(thread) + " line " + std::to_string(i),
                                 "host.cpp", 7);
    }
}

}  // namespace

TEST(Logger, WritesDatedFileInPublishedFormat) {
    EXPECT_EQ("", kel::logName());
    kel::loadLogging();
    EXPECT_EQ("loggertest_logger", kel::logName());
    hostLogger().warning("a %t text: \xC3\xA4", "dir/host.cpp", 42);
    kel::deleteLogger();

    const Poco::LocalDateTime now;
    EXPECT_TRUE(
        fs::exists(logDirectory() /
                   ("loggertest-" + Poco::DateTimeFormatter::format(now, "%Y-%m-%d") + ".log")));
    const std::regex format(
        R"(\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d\.\d-loggertest_logger:host(\.cpp)?:42:Warning:a %t text: .*)");
    const auto lines = loggedLines();
    EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(),
                               [&](const auto& line) { return std::regex_match(line, format); }));
    for (const char* own : {"Log initialized", "Log destroying", "Log destroyed"}) {
        EXPECT_EQ(1u, countOf(std::string(":Information:") + own)) << own;
    }
}

TEST(Logger, LosesAndDoublesNoLineWhileSetUpsRun) {
    constexpr int kThreads = 4, kLines = 3000;
    kel::loadLogging();
    std::vector<std::future<void>> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.push_back(std::async(std::launch::async, logNumbered, t, kLines));
    }
    int setUps = 0;
    const auto running = [](auto& f) {
        return f.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
    };
    while (std::any_of(threads.begin(), threads.end(), running) || setUps < 10) {
        ASSERT_NO_THROW(kel::loadLogging());
        ++setUps;
    }
    kel::deleteLogger();

    std::vector<int> next(kThreads, 0);
    const std::regex numbered(".*thread (\\d+) line (\\d+)");
    for (const std::string& line : loggedLines()) {
        std::smatch match;
        if (!std::regex_match(line, match, numbered)) continue;
        int& expected = next[std::stoul(match[1])];
        ASSERT_EQ(expected, std::stoi(match[2])) << line;
        ++expected;
    }
    EXPECT_EQ(std::vector<int>(kThreads, kLines), next);
    EXPECT_EQ(static_cast<std::size_t>(setUps) + 1, countOf("Log initialized"));
}

TEST(Logger, TakesLateCallsFromAnyThread) {
    kel::loadLogging();
    kel::deleteLogger();
    kel::deleteLogger();
    EXPECT_EQ("loggertest_logger", kel::logName());
    std::async(std::launch::async, logNumbered, 0, 3).get();
    kel::loadLogging();
    EXPECT_EQ(1u, countOf("thread 0 line 2"));
    EXPECT_EQ(1u, countOf("Log initialized"));
}

TEST(Logger, ASetUpHealsWhatTheHostOrTheDiskBroke) {
    kel::loadLogging();
    hostLogger().setLevel(Poco::Message::PRIO_FATAL);
    kel::loadLogging();
    EXPECT_TRUE(hostLogger().trace());

    Poco::Logger::shutdown();
    kel::loadLogging();
    hostLogger().information("after shutdown");

    fs::remove_all(logDirectory());
    kel::loadLogging();
    hostLogger().information("after removal");
    kel::deleteLogger();
    EXPECT_EQ(1u, countOf("after removal"));
}

TEST(Logger, AFailedSetUpThrowsAndLeavesTheOldOneInUse) {
    const std::string home = ::getenv("XDG_DATA_HOME");
    std::ofstream(home + "/occupied") << "a file";
    ::setenv("XDG_DATA_HOME", (home + "/occupied").c_str(), 1);
    EXPECT_THROW(kel::loadLogging(), Poco::Exception);
    EXPECT_EQ("", kel::logName());

    ::setenv("XDG_DATA_HOME", home.c_str(), 1);
    kel::loadLogging();
    ::setenv("XDG_DATA_HOME", (home + "/occupied").c_str(), 1);
    EXPECT_THROW(kel::loadLogging(), Poco::Exception);
    hostLogger().information("still here");
    kel::deleteLogger();
    ::setenv("XDG_DATA_HOME", home.c_str(), 1);
    EXPECT_EQ(1u, countOf("still here"));
}

TEST(LoggerDeathTest, ProcessEndLosesNoLine) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    const std::string home = std::string(::getenv("XDG_DATA_HOME")) + "/child";
    const auto endAtOnce = [] {
        kel::loadLogging();
        logNumbered(0, 2000);
        std::exit(0);
    };
    ::setenv("KEL_TEST_DATA_HOME", home.c_str(), 1);
    EXPECT_EXIT(endAtOnce(), ::testing::ExitedWithCode(0), "");
    ::setenv("XDG_DATA_HOME", home.c_str(), 1);
    EXPECT_EQ(1u, countOf("thread 0 line 1999"));
    EXPECT_EQ(2001u, loggedLines().size());
}
