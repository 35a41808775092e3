// Logger.cpp - one logger per executable, to the coloured console and a dated file.
//
// The POCO logger is made once and never destroyed while threads may use it. Its channel hands each
// line to the pipeline, whose two threads write:
//
//   Poco::Logger -> PipelineChannel -> LogPipeline -> console
//                                                  -> file
//
// A set-up, every minute, tells the pipeline which file to write to; it touches no disk itself.
// Once the library has been stopped, POCO's own channels stand at the logger, because the library's
// code may be unloaded then while the host goes on logging.
//
// state                     who may touch it                        lock
// instance, refresh thread  loadLogging, deleteLogger, library stop Instance::mutex
// logger, file path         set-ups, library stop                   Setup::mutex
// logger's name             any thread                              none: published once
// pipeline                  any thread                              its own

#include "Logger.h"

#include <Poco/Ascii.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/Environment.h>
#include <Poco/Exception.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/LocalDateTime.h>
#include <Poco/Logger.h>
#include <Poco/NumberFormatter.h>
#include <Poco/Path.h>
#include <Poco/PatternFormatter.h>
#include <Poco/SplitterChannel.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "internal/log/ConsoleSink.h"
#include "internal/log/FileSink.h"
#include "internal/log/LineFormatter.h"
#include "internal/log/LogPipeline.h"
#include "internal/log/UnitLog.h"
#include "internal/platform/Paths.h"
#include "internal/platform/Platform.h"
#include "internal/process/LibraryStop.h"
#include "internal/process/NeverDestroyed.h"
#include "internal/process/StopSignal.h"

namespace kel {

namespace {

constexpr UnitLog log("src/common/Logger");
constexpr auto kRefreshInterval = std::chrono::seconds(60);
constexpr auto kOutputPatience = std::chrono::seconds(2);

using ChannelPtr = Poco::AutoPtr<Poco::Channel>;

LogPipeline& pipeline() {
    static NeverDestroyed<LogPipeline> instance{LogPipeline::Limits{}};
    return *instance;
}

ChannelPtr& pipelineChannel() {
    static NeverDestroyed<ChannelPtr> channel{new PipelineChannel(pipeline())};
    return *channel;
}

struct Setup {
    std::mutex mutex;
    std::string filePath;  // guarded by mutex
};

Setup& setup() {
    static NeverDestroyed<Setup> instance;
    return *instance;
}

std::string today() {
    const Poco::LocalDateTime now;
    return Poco::NumberFormatter::format(now.year()) + "-" +
           Poco::NumberFormatter::format0(now.month(), 2) + "-" +
           Poco::NumberFormatter::format0(now.day(), 2);
}

std::string lowerBaseName() {
    std::string name = paths::executable().getBaseName();
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return static_cast<char>(Poco::Ascii::toLower(c)); });
    return name;
}

std::string logDirectory() {
    return paths::applicationDirectory(Poco::Path::dataHome()).toString();
}

// The doubled separator is part of the published path.
std::string logFilePath() {
    return logDirectory() + "/" + lowerBaseName() + "-" + today() + ".log";
}

// Whether an earlier load of the library has left `channel` at a logger.
bool isLeftBehind(ChannelPtr channel) {
    auto* formatting = dynamic_cast<Poco::FormattingChannel*>(channel.get());
    if (!formatting) return false;
    Poco::AutoPtr<Poco::Formatter> formatter = formatting->getFormatter();
    return dynamic_cast<Poco::PatternFormatter*>(formatter.get()) &&
           formatter->getProperty(Poco::PatternFormatter::PROP_PATTERN) == kLinePattern;
}

// Gives the channel `next` to every logger whose channel is an old one, since a host's loggers
// below the library's have inherited it. No other logger is written to, because other threads read
// a logger's channel without a lock.
template <typename IsOld>
void exchangeChannel(const ChannelPtr& next, IsOld&& isOld) {
    std::vector<std::string> names;
    Poco::Logger::names(names);
    for (const std::string& name : names) {
        Poco::Logger& logger = Poco::Logger::get(name);
        const ChannelPtr channel = logger.getChannel();
        if (channel && channel != next && isOld(channel)) logger.setChannel(next);
    }
}

// Makes the logger on the first set-up, and again after the host has shut POCO's logging down. What
// an earlier load left behind is closed, since it may hold the file.
void attachLogger(const std::string& name) {
    const ChannelPtr ours = pipelineChannel();
    Poco::Logger& logger = Poco::Logger::get(name);
    if (logger.getChannel() != ours) {
        exchangeChannel(ours, [](ChannelPtr channel) {
            const bool left = isLeftBehind(channel);
            if (left) channel->close();
            return left;
        });
        logger.setChannel(ours);
    }
    if (logger.getLevel() != Poco::Message::PRIO_TRACE) logger.setLevel(Poco::Message::PRIO_TRACE);
}

void setUp() {
    const std::lock_guard<std::mutex> oneSetup(setup().mutex);
    pipeline().start(consoleWantsColors());
    setLoggerName(lowerBaseName() + "_logger");
    attachLogger(loggerName());
    setup().filePath = logFilePath();
    pipeline().useFile(setup().filePath);
}

// Without its directory no file can ever be opened, so the host has to know. Any other fault may
// pass, and has been reported on the console.
void throwIfNoDirectory() {
    if (pipeline().awaitFile() == LogPipeline::FileState::kRefused) {
        createLogDirectory(logDirectory());
    }
}

ChannelPtr pocoChannels(const LogPipeline::Outputs& working, const std::string& path) {
    Poco::AutoPtr<Poco::SplitterChannel> splitter(new Poco::SplitterChannel);
    if (working.console) {
        Poco::AutoPtr<Poco::ColorConsoleChannel> console(new Poco::ColorConsoleChannel);
        console->setProperty("enableColors", consoleWantsColors() ? "true" : "false");
        console->setProperty("informationColor", "cyan");
        console->setProperty("noticeColor", "cyan");
        splitter->addChannel(console);
    }
    if (working.file) {
        Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(path));
        file->setProperty("times", "local");
        splitter->addChannel(file);
    }
    Poco::AutoPtr<Poco::PatternFormatter> formatter(new Poco::PatternFormatter(kLinePattern));
    formatter->setProperty("times", "local");
    return new Poco::FormattingChannel(formatter, splitter);
}

// A thread that is inside the pipeline at this moment still gets its line through.
void leaveToPoco() {
    const std::lock_guard<std::mutex> noSetup(setup().mutex);
    if (setup().filePath.empty()) return;
    pipeline().stop();
    const ChannelPtr successor = pocoChannels(pipeline().working(), setup().filePath);
    pipeline().handOver(successor);
    exchangeChannel(successor,
                    [](const ChannelPtr& channel) { return channel == pipelineChannel(); });
}

// Sets up again every minute, from its construction to its destruction.
class RefreshThread {
public:
    RefreshThread() : _thread([this] { run(); }) {}
    ~RefreshThread() {
        _stop.set();
        _thread.join();
    }
    RefreshThread(const RefreshThread&) = delete;
    RefreshThread& operator=(const RefreshThread&) = delete;

private:
    void run() {
        platform::beginBackgroundThread("log-refresh");
        while (_stop.sleepFor(kRefreshInterval)) logExceptions(log, setUp);
    }

    StopSignal _stop;
    std::thread _thread;
};

bool quiet() {
    const std::string value = Poco::Environment::get("KEL_QUIET", "");
    return !value.empty() && value != "0";
}

// One object per process, from the library's load to deleteLogger().
class LoggerImpl {
public:
    LoggerImpl() {
        if (!quiet()) std::cout << "LoggerImpl instance created" << std::endl;
    }

    ~LoggerImpl() {
        log.information("Log destroying");
        stop();
        log.information("Log destroyed");
    }

    LoggerImpl(const LoggerImpl&) = delete;
    LoggerImpl& operator=(const LoggerImpl&) = delete;

    void load() {
        setUp();
        if (!_refresh) _refresh = std::make_unique<RefreshThread>();
        throwIfNoDirectory();
    }

    void stop() { _refresh.reset(); }

private:
    std::unique_ptr<RefreshThread> _refresh;
};

struct Instance {
    std::mutex mutex;  // held while the instance works, so that it is not deleted meanwhile
    std::unique_ptr<LoggerImpl> impl = std::make_unique<LoggerImpl>();
};

Instance& instance() {
    static NeverDestroyed<Instance> holder;
    return *holder;
}

// Creates the instance while the library is loaded.
[[maybe_unused]] const Instance& loadedInstance = instance();

void stopAtLibraryStop() {
    const std::lock_guard<std::mutex> lock(instance().mutex);
    if (instance().impl) instance().impl->stop();
    leaveToPoco();
}

}  // namespace

LogPipeline::Counters logCounters() {
    return LogPipeline::isForkedChild() ? LogPipeline::Counters() : pipeline().counters();
}

void loadLogging() {
    static std::once_flag console;
    std::call_once(console, [] { platform::prepareConsole(); });
    if (LogPipeline::isForkedChild() || processIsEnding()) return;
    {
        const std::lock_guard<std::mutex> lock(instance().mutex);
        if (!instance().impl) return;
        onLibraryStop(StopStage::kLogging, stopAtLibraryStop);
        instance().impl->load();
    }
    log.information("Log initialized");
}

std::string logName() {
    return loggerName();
}

void logLine(Poco::Message::Priority priority, const std::string& text, const char* file,
             int line) noexcept {
    logAsIs(priority, text, file, line);
}

void deleteLogger() {
    if (LogPipeline::isForkedChild()) return;
    const std::lock_guard<std::mutex> lock(instance().mutex);
    if (!instance().impl) return;
    instance().impl.reset();
    pipeline().stop();
    if (!quiet()) platform::printLine("LoggerImpl instance destroyed", kOutputPatience);
}

}  // namespace kel
