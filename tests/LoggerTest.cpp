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
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <vector>

#include "common/Shutdown.h"

namespace fs = std::filesystem;

namespace {

// As it is before a test changes it.
const std::string& dataHome() {
    static const std::string path = ::getenv("XDG_DATA_HOME");
    return path;
}

Poco::Logger& hostLogger() {
    return Poco::Logger::get(kel::logName());
}

void logNumbered(int thread, int count) {
    for (int i = 0; i < count; ++i) {
        hostLogger().information("thread " + std::to_string(thread) + " line " + std::to_string(i));
    }
}

// Each after its file's path. The day may change during a test.
std::vector<std::string> loggedLines() {
    std::vector<std::string> lines;
    for (const auto& file : fs::directory_iterator(dataHome() + "/kelhost")) {
        std::ifstream in(file.path());
        for (std::string line; std::getline(in, line);)
            lines.push_back(file.path().string() + line);
    }
    return lines;
}

// Lines that end with what the regular expression `ending` means.
long countOf(const std::string& ending) {
    const Poco::RegularExpression expression(".*" + ending);
    const auto lines = loggedLines();
    return std::count_if(lines.begin(), lines.end(),
                         [&](const auto& line) { return expression.match(line); });
}

}  // namespace

TEST(Logger, WritesADatedFileInThePublishedFormatAndTakesLateCalls) {
    EXPECT_EQ("", kel::logName());
    kel::loadLogging();
    EXPECT_EQ("loggertest_logger", kel::logName());
    hostLogger().warning("a %t text: \xC3\xA4", "dir/host.cpp", 42);
    kel::deleteLogger();
    kel::deleteLogger();
    std::async(std::launch::async, logNumbered, 0, 3).get();
    kel::loadLogging();
    for (const char* line :
         {R"(/loggertest-\d{4}-\d\d-\d\d\.log\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d\.\d-loggertest_logger:)"
          R"(host(\.cpp)?:42:Warning:a %t text: .*)",
          ":Information:Log initialized", ":Information:Log destroying",
          ":Information:Log destroyed", ":Information:thread 0 line 2"}) {
        EXPECT_EQ(1, countOf(line)) << line;
    }
}

TEST(Logger, LosesDoublesAndOvertakesNoLineWhileSetUpsRun) {
    constexpr int kThreads = 4, kLines = 3000;
    std::atomic<int> atWork{kThreads};
    kel::loadLogging();
    std::vector<std::future<void>> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.push_back(std::async(std::launch::async, [&atWork, thread] {
            logNumbered(thread, kLines);
            --atWork;
        }));
    }
    int setUps = 1;
    for (; setUps < 10 || atWork > 0; ++setUps) ASSERT_NO_THROW(kel::loadLogging());
    kel::deleteLogger();

    std::vector<int> next(kThreads, 0);
    for (const std::string& line : loggedLines()) {
        unsigned thread = 0;
        int number = 0;
        const char* text = line.c_str() + std::min(line.find("thread "), line.size());
        if (std::sscanf(text, "thread %u line %d", &thread, &number) != 2) continue;
        ASSERT_EQ(next.at(thread)++, number) << line;
    }
    EXPECT_EQ(std::vector<int>(kThreads, kLines), next);
    EXPECT_EQ(setUps, countOf("Log initialized"));
}

TEST(Logger, AFailedSetUpChangesNothingAndTheNextHealsWhatBroke) {
    const std::string occupied = dataHome() + "/occupied";
    std::ofstream(occupied) << "a file";
    for (const char* name : {"", "loggertest_logger"}) {
        ::setenv("XDG_DATA_HOME", occupied.c_str(), 1);
        EXPECT_THROW(kel::loadLogging(), Poco::Exception);
        EXPECT_EQ(name, kel::logName());
        if (*name != '\0') hostLogger().information("still here");
        ::setenv("XDG_DATA_HOME", dataHome().c_str(), 1);
        kel::loadLogging();
    }
    EXPECT_EQ(1, countOf("still here"));

    hostLogger().setLevel(Poco::Message::PRIO_FATAL);
    kel::loadLogging();
    EXPECT_TRUE(hostLogger().trace());
    Poco::Logger::shutdown();
    fs::remove_all(dataHome() + "/kelhost");
    kel::loadLogging();
    hostLogger().information("healed");
    kel::deleteLogger();
    EXPECT_EQ(1, countOf("healed"));
}

TEST(Logger, AConsoleThatTakesNothingHoldsUpNeitherTheFileNorTheEnd) {
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
    EXPECT_EQ(1, countOf("thread 0 line 1999"));
    EXPECT_EQ(2001u, loggedLines().size());
}
