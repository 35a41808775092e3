// Each test runs in a process of its own: logging is set up once per process.

#include "common/Logger.h"

#include <Poco/ConsoleChannel.h>
#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>
#include <Poco/RegularExpression.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <deque>
#include <filesystem>
#include <fstream>
#include <latch>
#include <sstream>
#include <thread>
#include <vector>

#include "Await.h"
#include "CapturedLog.h"
#include "common/Library.h"
#include "common/internal/log/ConsoleSink.h"
#include "common/internal/log/LogPipeline.h"
#include "common/internal/log/UnitLog.h"
#include "common/internal/process/NeverDestroyed.h"

namespace fs = std::filesystem;

namespace {

std::string dataHome() {
    return ::getenv("XDG_DATA_HOME");
}

Poco::Logger& hostLogger() {
    return Poco::Logger::get(kel::logName());
}

void logNumberedTo(Poco::Logger& logger, int thread, int count) {
    for (int i = 0; i < count; ++i) {
        logger.information("thread " + std::to_string(thread) + " line " + std::to_string(i));
    }
}

void logNumbered(int thread, int count) {
    logNumberedTo(hostLogger(), thread, count);
}

std::size_t countOf(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
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

// A pipeline on a file of its own, with bounds so small that few lines reach them, and a console
// that takes nothing but what the test reads.
struct Pipeline : ::testing::Test {
    Pipeline() {
        EXPECT_EQ(0, ::pipe(_console));
        ::dup2(_console[1], STDERR_FILENO);
        ::close(_console[1]);
        fs::create_directories(fs::path(_file).parent_path());
    }
    ~Pipeline() override {
        if (_pipeline) _pipeline->stop();
        ::dup2(_savedConsole, STDERR_FILENO);
    }

    void start(std::chrono::milliseconds patience = std::chrono::milliseconds(300)) {
        static kel::NeverDestroyed<std::deque<kel::LogPipeline>> all;
        constexpr std::size_t kBytes = std::size_t{1} << 18;
        _pipeline = &all->emplace_back(
            kel::LogPipeline::Limits{kBytes, kBytes, patience, std::chrono::milliseconds(10)});
        _pipeline->start(false);
        _pipeline->useFile(_file);
    }

    void log(int count, int first = 0) {
        for (int i = first; i < first + count; ++i) {
            const Poco::Message message("small", "line " + std::to_string(i) + " of many",
                                        Poco::Message::PRIO_INFORMATION, "test.cpp", 1);
            _pipeline->log(message);
        }
    }

    // Reads the console until `end` has come, in small pieces with a pause before each.
    std::string readUntil(const std::string& end, std::chrono::microseconds pause = {}) {
        std::string text;
        char piece[4096];
        while (text.find(end) == std::string::npos) {
            std::this_thread::sleep_for(pause);
            const ssize_t n = ::read(_console[0], piece, sizeof piece);
            if (n <= 0) break;
            text.append(piece, static_cast<std::size_t>(n));
        }
        return text;
    }

    // Whether the file has this many lines, once each and in their order.
    bool fileHas(int count) {
        std::ifstream in(_file);
        int next = 0;
        for (std::string line; std::getline(in, line);) {
            if (!line.ends_with(" of many")) continue;
            if (!line.ends_with(":line " + std::to_string(next++) + " of many")) return false;
        }
        return next == count;
    }

    const int _savedConsole = ::dup(STDERR_FILENO);
    int _console[2];
    const std::string _file = dataHome() + "/kelhost/pipeline.log";
    kel::LogPipeline* _pipeline = nullptr;
};

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
    for (const auto& entry : fs::recursive_directory_iterator(dataHome())) {
        EXPECT_EQ(fs::perms::none, entry.status().permissions() & fs::perms(077)) << entry.path();
    }
}

TEST(Logger, FormatsAndColorsAsPocoDoes) {
    Poco::PatternFormatter formatter(kel::kLinePattern);
    formatter.setProperty("times", "local");
    std::ostringstream colored;
    Poco::AutoPtr<Poco::ColorConsoleChannel> console(new Poco::ColorConsoleChannel(colored));
    for (const char* name : {"informationColor", "noticeColor"}) console->setProperty(name, "cyan");
    kel::LineFormatter ours;
    kel::LineBlock block;
    std::string expected;
    const char* const files[] = {nullptr, "", "plain.cpp", "/a/b.c/d.cpp", "a/"};
    for (int priority = 1; priority <= 8; ++priority) {
        for (const char* file : files) {
            const Poco::Message message("a_logger", "text %t\xC3\xA4\n\ttwo lines",
                                        Poco::Message::Priority(priority), file, 40 - priority);
            std::string line;
            formatter.format(message, line);
            expected += line + "\n";
            console->log(Poco::Message(message, line));
            ours.append(kel::recordOf(message), block);
        }
    }
    EXPECT_EQ(expected, std::string_view(block.text));
    EXPECT_EQ(colored.str(), kel::ConsoleSink::colored(block));
}

TEST(Logger, EscapesControlCharactersInTheLibrarysOwnLinesOnly) {
    const CapturedLog log;
    kel::UnitLog("test.cpp")
        .error(
            "a\nb\r\t\x1b[2J\x7f\xC2\x9B"
            "c \xC3\x9F \\");
    Poco::Logger::root().error("host\nline");
    EXPECT_EQ("a\\nb\\r\\t\\x1b[2J\\x7f\\x9bc \xC3\x9F \\", log.find("a").getText());
    EXPECT_EQ("host\nline", log.find("host").getText());
}

TEST(Logger, WritesEveryLineOnceAndInOrderWhileSetUpsRun) {
    constexpr int kThreads = 8, kLines = 3000;
    std::latch atWork(kThreads);
    const auto work = [&](int thread) {
        logNumbered(thread, kLines);
        atWork.count_down();
    };
    kel::loadLogging();
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
    for (int setUps = 0; setUps < 100 || !atWork.try_wait(); ++setUps)
        ASSERT_NO_THROW(kel::loadLogging());
    kel::deleteLogger();

    std::vector<int> next(kThreads, 0);
    for (const std::string& line : logged("thread \\d line \\d+")) {
        int& expected = next.at(line[line.rfind("thread ") + 7] - '0');
        ASSERT_TRUE(line.ends_with(" line " + std::to_string(expected++))) << line;
    }
    EXPECT_EQ(std::vector<int>(kThreads, kLines), next);
}

TEST(Logger, AFailedSetUpLosesNoLineAndTheNextOneRepairsIt) {
    const std::string home = dataHome();
    std::ofstream(home + "/occupied") << "a file";
    for (int set = 0; set < 2; ++set) {
        ::setenv("XDG_DATA_HOME", (home + "/occupied").c_str(), 1);
        EXPECT_THROW(kel::loadLogging(), Poco::Exception);
        EXPECT_EQ("loggertest_logger", kel::logName());
        hostLogger().information("still here");
        hostLogger().setLevel(Poco::Message::PRIO_FATAL);
        ::setenv("XDG_DATA_HOME", home.c_str(), 1);
        kel::loadLogging();
        EXPECT_TRUE(hostLogger().trace());
    }
    Poco::Logger::shutdown();
    EXPECT_TRUE(await([] { return logged("still here").size() == 2; }));
    fs::remove_all(home + "/kelhost");
    kel::loadLogging();
    logNumbered(0, 1);
    kel::deleteLogger();
    EXPECT_EQ(1u, logged("line 0").size());
}

TEST_F(Pipeline, ReportsAFileThatCannotBeOpenedAndWritesItsLinesLater) {
    fs::create_directory(_file);
    start();
    EXPECT_EQ(kel::LogPipeline::FileState::kRefused, _pipeline->awaitFile());
    log(1000);
    EXPECT_EQ(1000u, countOf(readUntil("line 999 of"), " of many"));
    fs::remove(_file);
    EXPECT_TRUE(await([&] { return fileHas(1000); }));
}

TEST_F(Pipeline, WritesEveryLineToAFileThatRefusedSomeForAWhile) {
    start();
    rlimit unlimited;
    ::getrlimit(RLIMIT_FSIZE, &unlimited);
    const rlimit tight{4321, unlimited.rlim_max};  // in the middle of a line
    ::setrlimit(RLIMIT_FSIZE, &tight);
    log(200);
    EXPECT_TRUE(await([&] { return fs::exists(_file) && fs::file_size(_file) == 4321; }));
    log(200, 200);
    ::setrlimit(RLIMIT_FSIZE, &unlimited);
    EXPECT_TRUE(await([&] { return fileHas(400); }));
}

TEST_F(Pipeline, GivesUpAFileThatHangsWhileTheConsoleGoesOn) {
    ASSERT_EQ(0, ::mkfifo(_file.c_str(), 0600));
    start();
    for (int setUps = 0; setUps < 2; ++setUps) {
        log(500, 500 * setUps);
        readUntil("line " + std::to_string(500 * setUps + 499));
        _pipeline->useFile(_file);
    }
    _pipeline->stop();
    EXPECT_FALSE(_pipeline->working().file);
}

TEST_F(Pipeline, GivesASlowConsoleEveryLineBeforeItEnds) {
    start(std::chrono::seconds(20));
    std::thread host([&] {
        log(20000);
        _pipeline->stop();
    });
    const auto text = readUntil("line 19999 of many", std::chrono::microseconds(500));
    host.join();
    EXPECT_EQ(20000u, countOf(text, " of many"));
    EXPECT_TRUE(fileHas(20000));
}

TEST_F(Pipeline, CountsTheLinesThatAStoppedConsoleLosesAndTheFileHasThemAll) {
    start();
    log(20000);
    EXPECT_TRUE(await([&] { return fileHas(20000); }));
    const std::uint64_t lost = _pipeline->counters().droppedConsole;
    const auto text = readUntil(" lines were dropped: the console took none\n");
    EXPECT_GT(lost, 0u);
    EXPECT_EQ(20000u - lost, countOf(text, " of many"));
    EXPECT_NE(std::string::npos, text.find("Warning:" + std::to_string(lost) + " lines were"));
    log(1, 20000);
    EXPECT_EQ(1u, countOf(readUntil("line 20000"), "line 20000"));
}

// What the library never destroys leaks when it is unloaded, so the process ends without a search
// for leaks.
TEST(LoggerDeathTest, LeavesLateLinesToPocoWhenTheLibraryIsUnloaded) {
    const auto loadAndUnload = [] {
        void* library = ::dlopen(KEL_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        if (!library) ::_exit(1);
        reinterpret_cast<void (*)()>(::dlsym(library, "_ZN3kel11loadLoggingEv"))();
        Poco::Logger& child = Poco::Logger::get("loggertest_logger.child");
        child.information("loaded line");
        reinterpret_cast<void (*)()>(::dlsym(library, "_ZN3kel11stopLibraryEv"))();
        ::dlclose(library);
        child.information("late line");
        Poco::Logger::get("loggertest_logger").information("late line");
    };
    const auto twice = [&] {
        for (int load = 0; load < 2; ++load) loadAndUnload();
        ::_exit(0);
    };
    EXPECT_EXIT(twice(), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(2u, logged("loaded line").size());
    EXPECT_EQ(4u, logged("late line").size());
}

TEST(Logger, StartsAnewAfterTheLibrarysStop) {
    for (int start = 0; start < 2; ++start) {
        kel::loadLogging();
        logNumbered(0, 1);
        kel::stopLibrary();
        logNumbered(1, 1);
    }
    EXPECT_EQ(4u, logged("line 0").size());
}

TEST(Logger, AForkedChildWritesItsLinesItself) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "a child may find the sanitizer's allocator locked for ever";
#endif
    kel::loadLogging();
    Poco::Logger& logger = hostLogger();  // a child may find POCO's look-up locked for ever
    std::latch going(2);
    std::jthread busy([&](const std::stop_token& stop) {
        for (going.count_down(); !stop.stop_requested();) logNumberedTo(logger, 1, 1);
    });
    going.arrive_and_wait();
    const ::pid_t child = ::fork();
    if (child == 0) {
        ::alarm(20);
        logNumberedTo(logger, 2, 100);
        kel::deleteLogger();
        std::exit(0);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    busy.request_stop();
    busy.join();
    kel::deleteLogger();
    EXPECT_EQ(0, status);
    EXPECT_EQ(100u, logged("thread 2 line \\d+").size());
}

TEST(LoggerDeathTest, TheEndOfTheProcessLosesNoLineAlsoWithAConsoleThatTakesNothing) {
    const auto logAndExit = [](int line, bool unread) {
        int pipe[2];
        if (::pipe(pipe) != 0) ::_exit(1);
        for (int fd : {1, 2}) ::dup2(unread ? pipe[1] : fd, fd);
        kel::loadLogging();
        logNumbered(line, 3000);  // more than the pipe holds
        if (unread) kel::deleteLogger();
        std::exit(0);
    };
    for (const bool unread : {false, true}) {
        EXPECT_EXIT(logAndExit(unread, unread), ::testing::ExitedWithCode(0), "");
        EXPECT_EQ(3000u, logged("thread " + std::to_string(unread) + " line \\d+").size());
    }
}
