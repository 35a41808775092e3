// Each test runs in a process of its own: logging is set up once per process.

#include "common/Logger.h"

#include <Poco/ConsoleChannel.h>
#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>
#include <Poco/RegularExpression.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <deque>
#include <filesystem>
#include <fstream>
#include <latch>
#include <new>
#include <sstream>
#include <thread>

#include "Await.h"
#include "CapturedLog.h"
#include "common/Library.h"
#include "common/ThreadPool.h"
#include "common/internal/log/ConsoleSink.h"
#include "common/internal/log/LogPipeline.h"
#include "common/internal/log/UnitLog.h"
#include "common/internal/process/NeverDestroyed.h"

namespace fs = std::filesystem;

namespace {

// Refused to all threads but those that may have it.
std::atomic<bool> noMemory{false};
std::atomic<int> refusals{0};
thread_local bool mayAllocate = false;

std::string home() {
    return ::getenv("XDG_DATA_HOME");
}

std::string folder() {
    return home() + "/kelhost";
}

Poco::Logger& hostLogger() {
    return Poco::Logger::get(kel::logName());
}

std::string numbered(int thread, int line) {
    return "thread " + std::to_string(thread) + " line " + std::to_string(line);
}

void logNumbered(int thread, int count, Poco::Logger& logger = hostLogger()) {
    for (int i = 0; i < count; ++i) logger.information(numbered(thread, i));
}

// All files of the log.
std::string logText() {
    std::ostringstream text;
    for (const auto& file : fs::directory_iterator(folder())) {
        if (file.is_regular_file()) text << std::ifstream(file.path()).rdbuf();
    }
    return text.str();
}

int countOf(const std::string& expression, const std::string& text = logText()) {
    const Poco::RegularExpression wanted(expression);
    Poco::RegularExpression::Match match{};
    int count = 0;
    while (wanted.match(text, match.offset + match.length, match) > 0) ++count;
    return count;
}

// How many numbered lines of this thread the text has; -1 if not each once, in order and whole.
int inOrder(const std::string& text, int thread = 0) {
    std::istringstream in(text);
    int next = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.find(":thread " + std::to_string(thread)) == std::string::npos) continue;
        if (!line.ends_with(":Information:" + numbered(thread, next++))) return -1;
    }
    return next;
}

// A pipeline on a file of its own, with bounds so small that few lines reach them, and a console
// that takes nothing but what the test reads.
struct Pipeline : ::testing::Test {
    Pipeline() {
        EXPECT_EQ(0, ::pipe(_console));
        ::dup2(_console[1], STDERR_FILENO);
        ::close(_console[1]);
        fs::create_directories(folder());
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

    void log(int count) {
        for (const int end = _logged + count; _logged < end; ++_logged) {
            const std::string text = numbered(0, _logged);
            const auto priority = Poco::Message::PRIO_INFORMATION;
            _pipeline->log(Poco::Message("small", text, priority, "test.cpp", 1));
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
    std::string readAll() { return readUntil(numbered(0, _logged - 1) + "\n"); }

    bool fileGetsAll() {
        return await([this] { return inOrder(logText()) == _logged; });
    }

    const int _savedConsole = ::dup(STDERR_FILENO);
    int _console[2];
    const std::string _file = folder() + "/pipeline.log";
    kel::LogPipeline* _pipeline = nullptr;
    int _logged = 0;
};

}  // namespace

// Not inline, since GCC would take std::free() for a mistake where it sees both.
[[gnu::noinline]] void* operator new(std::size_t size) {
    const bool refused = noMemory && !mayAllocate;
    if (refused) ++refusals;
    void* const memory = refused ? nullptr : std::malloc(size);
    if (!memory) throw std::bad_alloc();
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

// Here because of the allocator. What the second task throws is logged before any logger is set up.
TEST(PoolWithoutMemory, RunsItsTasksAndStops) {
    kel::ThreadPool pool(1, 4);
    std::atomic<int> ran{0};
    mayAllocate = true;
    noMemory = true;
    pool.start([&] { ++ran; }, "a name that takes memory of its own");
    pool.start([&] {
        ++ran;
        throw std::bad_alloc();
    });
    EXPECT_TRUE(await([&] { return pool.pendingTasks() == 0; }));
    pool.stop();
    noMemory = false;
    EXPECT_EQ(2, ran);
}

TEST(Logger, WritesADatedFileInThePublishedFormatAndTakesLateCalls) {
    kel::loadLogging();
    hostLogger().warning("a %t text: \xC3\xA4", "dir/host.cpp", 42);
    const std::string here = std::to_string(__LINE__ + 1);
    kel::logLine(Poco::Message::PRIO_DEBUG, "a line\nof two");
    for (int twice = 0; twice < 2; ++twice) kel::deleteLogger();
    std::thread([] { logNumbered(0, 3); }).join();
    kel::loadLogging();
    const std::string time = R"(\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d\.\d{1,2})";
    const std::string lines[] = {
        time + "-loggertest_logger:host(\\.cpp)?:42:Warning:a %t text: \xC3\xA4\n",
        time + "-loggertest_logger:LoggerTest(\\.cpp)?:" + here + ":Debug:a line\nof two\n",
        ":Log initialized\n", ":Log destroying\n", ":Log destroyed\n"};
    for (const std::string& line : lines) {
        EXPECT_EQ(1, countOf(line)) << line;
    }
    EXPECT_EQ(3, inOrder(logText()));
    for (const auto& entry : fs::recursive_directory_iterator(home())) {
        EXPECT_EQ(fs::perms::none, entry.status().permissions() & fs::perms(077)) << entry.path();
    }
    const std::string file = fs::directory_iterator(folder())->path().filename();
    EXPECT_EQ(1, countOf(R"(^loggertest-\d{4}-\d\d-\d\d\.log$)", file)) << file;
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
    const std::string text = "a\nb\r\t\x1b[2J\x7f\xC2\x9B c \xC3\x9F \\";
    kel::UnitLog("test.cpp").error(text);
    Poco::Logger::root().error("host\nline");
    EXPECT_EQ("a\\nb\\r\\t\\x1b[2J\\x7f\\x9b c \xC3\x9F \\", log.find("a").getText());
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
    const std::string text = logText();
    for (int i = 0; i < kThreads; ++i) EXPECT_EQ(kLines, inOrder(text, i)) << i;
}

TEST(Logger, AFailedSetUpLosesNoLineAndTheNextOneRepairsIt) {
    const std::string usual = home();
    std::ofstream(usual + "/occupied") << "a file";
    for (const std::string& unusable : {usual + "/occupied", usual + "/occupied/below"}) {
        ::setenv("XDG_DATA_HOME", unusable.c_str(), 1);
        try {
            kel::loadLogging();
            ADD_FAILURE() << unusable;
        } catch (const Poco::FileException& exc) {
            EXPECT_EQ("create directory " + unusable + "/kelhost/: Not a directory", exc.message());
        }
        EXPECT_EQ("loggertest_logger", kel::logName());
        hostLogger().information("still here");
        hostLogger().setLevel(Poco::Message::PRIO_FATAL);
        ::setenv("XDG_DATA_HOME", usual.c_str(), 1);
        kel::loadLogging();
        EXPECT_TRUE(hostLogger().trace());
    }
    Poco::Logger::shutdown();
    EXPECT_TRUE(await([] { return countOf("still here") == 2; }));
    fs::remove_all(folder());
    kel::loadLogging();
    logNumbered(0, 1);
    kel::deleteLogger();
    EXPECT_EQ(1, inOrder(logText()));
}

TEST_F(Pipeline, WritesEveryLineOnceTheFileCanBeOpenedAndTheDiskHasRoom) {
    const auto mount = [](const char* where, int flags, const char* options) {
        return ::mount("", where, "tmpfs", static_cast<unsigned long>(flags), options) == 0;
    };
    if (::unshare(CLONE_NEWNS) != 0 || !mount("/", MS_REC | MS_PRIVATE, nullptr) ||
        !mount(folder().c_str(), 0, "size=16k")) {
        GTEST_SKIP() << "no right to mount a tmpfs";
    }
    fs::create_directory(_file);
    start();
    EXPECT_EQ(kel::LogPipeline::FileState::kRefused, _pipeline->awaitFile());
    log(400);
    EXPECT_EQ(400, inOrder(readAll()));
    fs::remove(_file);
    EXPECT_TRUE(await([&] { return fs::exists(_file) && fs::file_size(_file) == 16384; }));
    log(200);
    readAll();
    EXPECT_TRUE(mount(folder().c_str(), MS_REMOUNT, "size=1m"));
    EXPECT_TRUE(fileGetsAll());
}

TEST_F(Pipeline, KeepsItsLinesUntilItsThreadsHaveMemoryAndCountsWhatItGivesUp) {
    start();
    _pipeline->awaitFile();
    mayAllocate = true;
    noMemory = true;
    log(1000);
    EXPECT_TRUE(await([] { return refusals > 2; }));
    noMemory = false;
    EXPECT_EQ(1000, inOrder(readAll()));
    EXPECT_TRUE(fileGetsAll());
    noMemory = true;
    log(100);
    _pipeline->stop();
    noMemory = false;
    const auto counted = _pipeline->counters();
    EXPECT_EQ(1000u, counted.linesWritten);
    EXPECT_EQ(100u, counted.droppedFile);
    EXPECT_EQ(100u, counted.droppedConsole);
}

TEST_F(Pipeline, GivesUpAFileThatHangsWhileTheConsoleGoesOn) {
    ASSERT_EQ(0, ::mkfifo(_file.c_str(), 0600));
    start();
    for (int setUps = 0; setUps < 2; ++setUps) {
        log(500);
        EXPECT_EQ(500, countOf(":thread 0", readAll()));
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
    const std::string text = readUntil(" line 19999\n", std::chrono::microseconds(500));
    host.join();
    EXPECT_EQ(20000, inOrder(text));
    EXPECT_TRUE(fileGetsAll());
}

TEST_F(Pipeline, CountsTheLinesThatAStoppedConsoleLosesAndTheFileHasThemAll) {
    start();
    log(20000);
    EXPECT_TRUE(fileGetsAll());
    const int lost = static_cast<int>(_pipeline->counters().droppedConsole);
    const std::string text = readUntil(" lines were dropped: the console took none\n");
    EXPECT_GT(lost, 0);
    EXPECT_EQ(20000 - lost, countOf(":thread 0", text));
    EXPECT_EQ(1, countOf(":Warning:" + std::to_string(lost) + " lines were", text));
    log(1);
    EXPECT_EQ(1, countOf("line 20000", readAll()));
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
    EXPECT_EQ(2, countOf("loaded line"));
    EXPECT_EQ(4, countOf("late line"));
}

TEST(Logger, StartsAnewAfterTheLibrarysStop) {
    for (int start = 0; start < 2; ++start) {
        kel::loadLogging();
        logNumbered(0, 1);
        kel::stopLibrary();
        logNumbered(1, 1);
    }
    EXPECT_EQ(4, countOf("line 0"));
}

TEST(Logger, AForkedChildWritesItsLinesItself) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "a child may find the sanitizer's allocator locked for ever";
#endif
    kel::loadLogging();
    Poco::Logger& logger = hostLogger();  // a child may find POCO's look-up locked for ever
    std::latch going(2);
    std::jthread busy([&](const std::stop_token& stop) {
        for (going.count_down(); !stop.stop_requested();) logNumbered(1, 1, logger);
    });
    going.arrive_and_wait();
    const ::pid_t child = ::fork();
    if (child == 0) {
        ::alarm(20);
        logNumbered(2, 100, logger);
        kel::deleteLogger();
        std::exit(0);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    busy.request_stop();
    busy.join();
    kel::deleteLogger();
    EXPECT_EQ(0, status);
    EXPECT_EQ(100, inOrder(logText(), 2));
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
        EXPECT_EQ(3000, inOrder(logText(), unread));
    }
}
