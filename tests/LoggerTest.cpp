// Each test runs in a process of its own: logging is set up once per process.

#include "common/Logger.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/RegularExpression.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <latch>
#include <thread>
#include <vector>

#include "common/Library.h"

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

// The lines, each after the path of its file, whose end matches `expression`.
std::vector<std::string> logged(const std::string& expression) {
    const Poco::RegularExpression wanted(".*" + expression);
    std::vector<std::string> lines;
    for (const auto& file : fs::directory_iterator(dataHome() + "/kelhost")) {
        std::ifstream in(file.path());
        for (std::string text; std::getline(in, text);) {
            const std::string line = file.path() / text;
            if (wanted.match(line)) lines.push_back(line);
        }
    }
    return lines;
}

}  // namespace

TEST(Logger, WritesADatedFileInThePublishedFormatAndTakesLateCalls) {
    kel::loadLogging();
    hostLogger().warning("a %t text: \xC3\xA4", "dir/host.cpp", 42);
    for (int twice = 0; twice < 2; ++twice) kel::deleteLogger();
    std::thread(logNumbered, 0, 3).join();
    kel::loadLogging();
    const char* published =
        R"(/loggertest-\d{4}-\d\d-\d\d\.log/\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d\.\d{1,2})"
        R"(-loggertest_logger:host(\.cpp)?:42:Warning:a %t text: .*)";
    for (const char* line :
         {published, "Log initialized", "Log destroying", "Log destroyed", "line 2"}) {
        EXPECT_EQ(1u, logged(line).size()) << line;
    }
}

TEST(Logger, LosesDoublesAndOvertakesNoLineWhileSetUpsRun) {
    constexpr int kThreads = 4, kLines = 3000;
    std::latch atWork(kThreads);
    const auto work = [&](int thread) {
        logNumbered(thread, kLines);
        atWork.count_down();
    };
    kel::loadLogging();
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
    for (int setUps = 0; setUps < 10 || !atWork.try_wait(); ++setUps)
        ASSERT_NO_THROW(kel::loadLogging());
    kel::deleteLogger();

    std::vector<int> next(kThreads, 0);
    for (const std::string& line : logged("thread \\d line \\d+")) {
        int& expected = next.at(line[line.rfind("thread ") + 7] - '0');
        ASSERT_TRUE(line.ends_with(" line " + std::to_string(expected++))) << line;
    }
    EXPECT_EQ(std::vector<int>(kThreads, kLines), next);
}

TEST(Logger, AFailedSetUpChangesNothingAndTheNextHealsWhatBroke) {
    const std::string home = dataHome();
    std::ofstream(home + "/occupied") << "a file";
    for (const char* name : {"", "loggertest_logger"}) {
        ::setenv("XDG_DATA_HOME", (home + "/occupied").c_str(), 1);
        EXPECT_THROW(kel::loadLogging(), Poco::Exception);
        EXPECT_EQ(name, kel::logName());
        hostLogger().information("still here");
        hostLogger().setLevel(Poco::Message::PRIO_FATAL);
        ::setenv("XDG_DATA_HOME", home.c_str(), 1);
        kel::loadLogging();
    }
    EXPECT_EQ(1u, logged("still here").size());
    EXPECT_TRUE(hostLogger().trace());
    Poco::Logger::shutdown();
    fs::remove_all(home + "/kelhost");
    kel::loadLogging();
    logNumbered(0, 1);
    kel::deleteLogger();
    EXPECT_EQ(1u, logged("line 0").size());
}

TEST(LoggerDeathTest, ProcessEndLosesNoLine) {
    const auto endAtOnce = [] {
        kel::loadLogging();
        logNumbered(0, 2000);
        std::exit(0);
    };
    EXPECT_EXIT(endAtOnce(), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(2000u, logged("line \\d+").size());
}

TEST(LoggerDeathTest, AConsoleThatTakesNothingHoldsUpNeitherTheFileNorTheEnd) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "POCO destroys its console mutex, which the abandoned writer holds; the "
                    "sanitizer says so on that very console";
#endif
    const auto endUnread = [] {
        int pipe[2];
        if (::pipe(pipe) != 0) ::_exit(1);
        for (int fd : {1, 2}) ::dup2(pipe[1], fd);
        kel::loadLogging();
        logNumbered(0, 3000);  // more than the pipe holds
        kel::loadLogging();
        kel::deleteLogger();
        std::exit(0);
    };
    EXPECT_EXIT(endUnread(), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(1u, logged("line 2999").size());
    EXPECT_EQ(2u, logged("Log initialized").size());
}
