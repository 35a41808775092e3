// What a line costs its caller, and how many lines a second are written: the library's logger, by
// way of POCO's and by logLine(), the same POCO channels wired by hand, and spdlog's asynchronous
// logger, each with a console and a file. Standard error, the console of all three, is /dev/null
// meanwhile. Each measurement is a process of its own, all take turns, and a figure counts only
// when the file has every line.

#include <Poco/AsyncChannel.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>
#include <Poco/SplitterChannel.h>
#include <fcntl.h>
#include <spdlog/async.h>
#include <spdlog/sinks/ansicolor_sink.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "Rounds.h"
#include "common/Logger.h"

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kLines = 200000;  // fewer than each queue holds: no caller waits for a writer
constexpr const char* kPattern = "%Y-%m-%d-%H:%M:%S.%c-%s:%O:%u:%p:%t";

constexpr const char* kText = " of a service that tells what it does";

std::string textOf(int i) {
    return "line " + std::to_string(i) + kText;
}

// One logger: how a line is given to it, and how to wait until all are written.
struct Contender {
    std::function<void(const std::string&)> log;
    std::function<void()> finish;
};

using MakeContender = Contender (*)(const fs::path&);

Contender library(const fs::path&) {
    kel::loadLogging();
    return {[](const std::string& text) {
                Poco::Logger::get(kel::logName()).information(text, __FILE__, __LINE__);
            },
            [] { kel::deleteLogger(); }};
}

Contender libraryDirectly(const fs::path&) {
    kel::loadLogging();
    return {[](const std::string& text) { kel::logLine(Poco::Message::PRIO_INFORMATION, text); },
            [] { kel::deleteLogger(); }};
}

Contender pocoByHand(const fs::path& folder) {
    Poco::AutoPtr<Poco::ColorConsoleChannel> console(new Poco::ColorConsoleChannel);
    Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel((folder / "poco.log").string()));
    Poco::AutoPtr<Poco::AsyncChannel> first(new Poco::AsyncChannel(console));
    Poco::AutoPtr<Poco::AsyncChannel> second(new Poco::AsyncChannel(file));
    Poco::AutoPtr<Poco::SplitterChannel> splitter(new Poco::SplitterChannel);
    splitter->addChannel(first);
    splitter->addChannel(second);
    Poco::AutoPtr<Poco::PatternFormatter> formatter(new Poco::PatternFormatter(kPattern));
    formatter->setProperty("times", "local");
    Poco::AutoPtr<Poco::FormattingChannel> channel(
        new Poco::FormattingChannel(formatter, splitter));
    Poco::Logger::create("loggingbench_logger", channel, Poco::Message::PRIO_TRACE);
    return {[](const std::string& text) {
                Poco::Logger::get("loggingbench_logger").information(text, __FILE__, __LINE__);
            },
            [first, second]() mutable {
                first->close();
                second->close();
            }};
}

Contender spdlogAsync(const fs::path& folder) {
    constexpr std::size_t kQueue = 1 << 18;
    spdlog::init_thread_pool(kQueue, 1);
    const auto console = std::make_shared<spdlog::sinks::ansicolor_stderr_sink_mt>();
    const auto file =
        std::make_shared<spdlog::sinks::basic_file_sink_mt>((folder / "spdlog.log").string());
    const auto logger = std::make_shared<spdlog::async_logger>(
        "loggingbench_logger", spdlog::sinks_init_list{console, file}, spdlog::thread_pool());
    logger->set_pattern("%Y-%m-%d-%H:%M:%S.%e-%n:%s:%#:%l:%v");
    return {[logger](const std::string& text) {
                logger->log(spdlog::source_loc{__FILE__, __LINE__, ""}, spdlog::level::info, text);
            },
            [] { spdlog::shutdown(); }};
}

struct Result {
    double callerNanoseconds = 0;  // for a line, on each thread
    double callerProcessor = 0;    // the same in processor time, which other processes hardly touch
    double linesPerSecond = 0;     // until all are written
    long residentKilobytes = 0;    // once all are written
};

long residentKilobytes() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == "VmRSS:") {
            long kilobytes = 0;
            status >> kilobytes;
            return kilobytes;
        }
    }
    return 0;
}

struct Cost {
    double time = 0;
    double processor = 0;
};

double threadProcessorNanoseconds() {
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) * 1e9 + static_cast<double>(used.tv_nsec);
}

std::size_t linesIn(const fs::path& folder) {
    std::size_t lines = 0;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.path().extension() != ".log") continue;
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);) lines += line.ends_with(kText);
    }
    return lines;
}

Result measureHere(MakeContender make, int threads, int lines, const fs::path& folder) {
    const Contender contender = make(folder);
    std::vector<Cost> took(static_cast<std::size_t>(threads));
    const auto work = [&](Cost& cost) {
        const auto begin = Clock::now();
        const double processorBegin = threadProcessorNanoseconds();
        for (int i = 0; i < lines / threads; ++i) contender.log(textOf(i));
        cost.processor = threadProcessorNanoseconds() - processorBegin;
        cost.time = std::chrono::duration<double, std::nano>(Clock::now() - begin).count();
    };
    const auto begin = Clock::now();
    std::vector<std::thread> workers;
    for (Cost& cost : took) workers.emplace_back(work, std::ref(cost));
    for (auto& worker : workers) worker.join();
    Result result;
    contender.finish();
    result.residentKilobytes = residentKilobytes();
    result.linesPerSecond = lines / std::chrono::duration<double>(Clock::now() - begin).count();
    for (const Cost& cost : took) {
        result.callerNanoseconds += cost.time / lines;
        result.callerProcessor += cost.processor / lines;
    }
    return result;
}

// In a child process, since each logger is set up once in a process.
Result measure(MakeContender make, int threads, int lines) {
    const fs::path folder =
        fs::temp_directory_path() / ("kel-log-bench-" + std::to_string(::getpid()));
    fs::create_directory(folder);
    ::setenv("XDG_DATA_HOME", folder.c_str(), 1);
    ::setenv("KEL_QUIET", "1", 1);  // nothing between the rows of the table
    int results[2];
    bench::check(::pipe(results) == 0, "no pipe");
    const ::pid_t child = ::fork();
    if (child == 0) {
        ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
        const Result result = measureHere(make, threads, lines, folder);
        ::_exit(::write(results[1], &result, sizeof(result)) == sizeof(result) ? 0 : 1);
    }
    ::close(results[1]);
    Result result;
    const bool whole = ::read(results[0], &result, sizeof(result)) == sizeof(result);
    ::close(results[0]);
    ::waitpid(child, nullptr, 0);
    const std::size_t written = linesIn(folder);
    fs::remove_all(folder);
    bench::check(whole && written == static_cast<std::size_t>(lines),
                 std::to_string(written) + " lines were written");
    return result;
}

void compare(const bench::Rounds& rounds, int threads, MakeContender ours, const std::string& by) {
    const std::string title = by + ", threads that log: " + std::to_string(threads);
    const auto caller = [threads](MakeContender make) -> bench::Job {
        return [=] {
            const Result result = measure(make, threads, kLines);
            return std::vector{result.callerNanoseconds, result.callerProcessor};
        };
    };
    const auto rate = [threads](MakeContender make) -> bench::Job {
        return [=] { return std::vector{measure(make, threads, kLines).linesPerSecond}; };
    };
    rounds.contest(title, {"ns for a line, its caller", "ns of it in processor time"}, caller(ours),
                   {{"POCO by hand", caller(pocoByHand), 0.2},
                    {"spdlog asynchronous", caller(spdlogAsync), 2}},
                   bench::Better::kLower);
    rounds.contest(
        title, {"lines/s until written"}, rate(ours),
        {{"POCO by hand", rate(pocoByHand), 1}, {"spdlog asynchronous", rate(spdlogAsync), 0.8}});
}

void printMemory() {
    for (const int lines : {1000000, 10000000}) {
        std::cout << "\nResident memory once " << lines << " lines from 4 threads are written: "
                  << measure(library, 4, lines).residentKilobytes / 1024 << " MiB\n";
    }
}

}  // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv, [argc](const bench::Rounds& rounds) {
        rounds.table("Logging", std::to_string(kLines) +
                                    " lines to a file and to a console that "
                                    "takes everything.");
        for (const int threads : {1, 4}) {
            compare(rounds, threads, library, "POCO's logger");
            compare(rounds, threads, libraryDirectly, "logLine()");
        }
        if (argc < 3) printMemory();
    });
}
