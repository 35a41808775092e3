// Each test runs in a process of its own: logging is set up once per process.

#include "common/Logger.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/RegularExpression.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <latch>
#include <thread>
#include <vector>

#include "Await.h"
#include "common/Shutdown.h"

namespace fs = std::filesystem;

namespace {

std::string dataHome() {
    return ::getenv("XDG_DATA_HOME");
}

Poco::Logger& hostLogger() {
    return Poco::Logger::get(kel::logName());
}

void logNumbered(int thread, int count) {
    for (int i = 0; i < count; ++i) {
        hostLogger().information("thread " + std::to_string(thread) + " line " + std::to_string(i));
    }
}

// Each after the path of its file.
std::vector<std::string> loggedLines() {
    std::vector<std::string> lines;
    for (const auto& file : fs::directory_iterator(dataHome() + "/kelhost")) {
        std::ifstream in(file.path());
        for (std::string line; std::getline(in, line);) lines.push_back(file.path() / line);
    }
    return lines;
}

long countOf(const std::string& expressionAtTheEnd) {
    const Poco::RegularExpression line(".*" + expressionAtTheEnd);
    const auto lines = loggedLines();
    return std::count_if(lines.begin(), lines.end(), [&](const auto& l) { return line.match(l); });
}

}  // namespace

TEST(Logger, WritesADatedFileInThePublishedFormatAndTakesLateCalls) {
    EXPECT_EQ("", kel::logName());
    kel::loadLogging();
    EXPECT_EQ("loggertest_logger", kel::logName());
    hostLogger().warning("a %t text: \xC3\xA4", "dir/host.cpp", 42);
    for (int twice = 0; twice < 2; ++twice) kel::deleteLogger();
    std::thread(logNumbered, 0, 3).join();
    kel::loadLogging();
    const std::string file = R"(/loggertest-\d{4}-\d\d-\d\d\.log)";
    const std::string time = R"(/\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d\.\d)";
    EXPECT_EQ(1,
              countOf(file + time + R"(-loggertest_logger:host(\.cpp)?:42:Warning:a %t text: .*)"));
    for (const char* line : {"Log initialized", "Log destroying", "Log destroyed", "line 2"}) {
        EXPECT_EQ(1, countOf(line)) << line;
    }
}

TEST(Logger, LosesDoublesAndOvertakesNoLineWhileSetUpsRun) {
    constexpr int kThreads = 4, kLines = 3000;
    std::latch atWork(kThreads);
    const auto work = [&](int thread) {
        logNumbered(thread, kLines);
        atWork.count_down();
    };
    int setUps = 1;
    kel::loadLogging();
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
    for (; setUps < 10 || !atWork.try_wait(); ++setUps) ASSERT_NO_THROW(kel::loadLogging());
    kel::deleteLogger();

    std::vector<int> next(kThreads, 0);
    for (const std::string& line : loggedLines()) {
        const auto text = line.find("thread ");
        if (text == std::string::npos) continue;
        int& expected = next.at(std::stoul(line.substr(text + 7)));
        ASSERT_TRUE(line.ends_with(" line " + std::to_string(expected++))) << line;
    }
    EXPECT_EQ(std::vector<int>(kThreads, kLines), next);
    EXPECT_EQ(setUps, countOf("Log initialized"));
}

TEST(Logger, AFailedSetUpChangesNothingAndTheNextHealsWhatBroke) {
    const std::string home = dataHome();
    std::ofstream(home + "/occupied") << "a file";
    for (const char* name : {"", "loggertest_logger"}) {
        ::setenv("XDG_DATA_HOME", (home + "/occupied").c_str(), 1);
        EXPECT_THROW(kel::loadLogging(), Poco::Exception);
        EXPECT_EQ(name, kel::logName());
        hostLogger().information("still here");
        ::setenv("XDG_DATA_HOME", home.c_str(), 1);
        kel::loadLogging();
    }
    EXPECT_EQ(1, countOf("still here"));

    hostLogger().setLevel(Poco::Message::PRIO_FATAL);
    kel::loadLogging();
    EXPECT_TRUE(hostLogger().trace());
    Poco::Logger::shutdown();
    fs::remove_all(home + "/kelhost");
    kel::loadLogging();
    hostLogger().information("healed");
    kel::deleteLogger();
    EXPECT_EQ(1, countOf("healed"));
}

TEST(Logger, AConsoleThatTakesNothingHoldsUpNeitherTheFileNorTheEnd) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer does not see the end of the writer that is left to itself";
#endif
    const auto threads = [] {
        return std::distance(fs::directory_iterator("/proc/self/task"), {});
    };
    std::thread([] {}).join();  // whatever a first thread brings with it is there now
    const auto before = threads();
    int pipe[2];
    ASSERT_EQ(0, ::pipe(pipe));
    const int saved[] = {::dup(1), ::dup(2)};
    for (int fd : {1, 2}) ::dup2(pipe[1], fd);
    kel::loadLogging();
    logNumbered(0, 3000);  // more than the pipe holds
    kel::loadLogging();
    logNumbered(1, 10);
    kel::stopLibrary();
    for (int fd : {1, 2}) ::dup2(saved[fd - 1], fd);
    EXPECT_EQ(1, countOf("thread 0 line 2999"));
    EXPECT_EQ(1, countOf("thread 1 line 9"));
    ::signal(SIGPIPE, SIG_IGN);
    ::close(pipe[0]);  // lets the writer go
    EXPECT_TRUE(await([&] { return threads() <= before; }));
}

TEST(LoggerDeathTest, ProcessEndLosesNoLine) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto endAtOnce = [] {
        kel::loadLogging();
        logNumbered(0, 2000);
        std::exit(0);
    };
    ::setenv("KEL_TEST_DATA_HOME", dataHome().c_str(), 1);
    EXPECT_EXIT(endAtOnce(), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(2001u, loggedLines().size());
}
