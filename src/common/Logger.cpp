// Logger.cpp - one logger per executable, to the coloured console and a dated file.
//
// The POCO logger is made once and never destroyed while threads may use it. It writes to an
// ExchangeableChannel, at which a set-up exchanges everything behind but the console's writer:
//
//   Poco::Logger -> ExchangeableChannel -> FormattingChannel -> SplitterChannel
//                                              -> AsyncChannel -> ColorConsoleChannel
//                                              -> AsyncChannel -> FileChannel
//
// State outlives the LoggerImpl, so that late calls from any thread find valid memory.
//   _setupMutex  one set-up at a time; held while files are opened and queues drained.
//   _nameMutex   the two strings; held for a copy only, so a logging thread never waits for a disk.

#include "Logger.h"

#include <Poco/Ascii.h>
#include <Poco/AsyncChannel.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
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
#include <condition_variable>
#include <future>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include "internal/log/ExchangeableChannel.h"
#include "internal/log/UnitLog.h"
#include "internal/platform/Paths.h"
#include "internal/platform/Platform.h"
#include "internal/process/LibraryStop.h"

namespace kel {

namespace {

constexpr UnitLog log("src/common/Logger");
constexpr auto kRefreshInterval = std::chrono::seconds(60);
constexpr auto kConsolePatience = std::chrono::seconds(2);
constexpr const char* kLinePattern = "%Y-%m-%d-%H:%M:%S.%c-%s:%O:%u:%p:%t";

using ChannelPtr = Poco::AutoPtr<Poco::Channel>;

// Keeps a writer thread alive when its console or disk fails; the other one has the line.
class TolerantChannel : public Poco::Channel {
public:
    explicit TolerantChannel(ChannelPtr target) : _target(std::move(target)) {}

    void log(const Poco::Message& message) override {
        try {
            _target->log(message);
        } catch (...) {
            // A disk may be full now and have room for the next line.
        }
    }

private:
    ChannelPtr _target;
};

using WriterPtr = Poco::AutoPtr<Poco::AsyncChannel>;

struct State {
    std::mutex setupMutex;
    // Guarded by setupMutex.
    WriterPtr consoleWriter;
    bool consoleWorks = true;
    WriterPtr fileWriter;  // null before the first set-up, and when lines are written at once
    ChannelPtr file;
    std::string filePath;

    std::mutex nameMutex;
    std::string loggerName;   // guarded by nameMutex
    std::string logFilePath;  // guarded by nameMutex

    Poco::AutoPtr<ExchangeableChannel> channel{new ExchangeableChannel};
};

State& state() {
    static auto* instance = new State;
    return *instance;
}

// Passes on what has been written when it is flushed, as POCO does after each line.
class ConsoleBuffer : public std::stringbuf {
    int sync() override {
        platform::writeToConsole(str());
        str("");
        return 0;
    }
};

ChannelPtr consoleChannel() {
    static std::ostream& stream = *new std::ostream(new ConsoleBuffer);
    Poco::AutoPtr<Poco::ColorConsoleChannel> console(new Poco::ColorConsoleChannel(stream));
    console->setProperty("enableColors", "true");
    console->setProperty("informationColor", "cyan");
    console->setProperty("noticeColor", "cyan");
    return console;
}

// Opens the file, so that one that cannot be written is the set-up's error.
ChannelPtr fileChannel(const std::string& path) {
    Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(path));
    file->setProperty("times", "local");
    file->open();
    return file;
}

// Windows opens no file for two writers: while the file in use is still there, the next set-up may
// go on with it. A file that was removed is opened anew or is an error.
ChannelPtr openedOrKept(const std::string& path) {
    try {
        return fileChannel(path);
    } catch (const Poco::FileException&) {
        if (path != state().filePath || !Poco::File(path).exists()) throw;
        return state().file;
    }
}

// Has its thread from the start, so that no line finds that it cannot be had.
WriterPtr inBackground(const ChannelPtr& sink) {
    const ChannelPtr tolerant(new TolerantChannel(sink));
    WriterPtr writer(new Poco::AsyncChannel(tolerant, Poco::Thread::PRIO_LOWEST));
    writer->open();
    return writer;
}

// A console that takes nothing, as a stopped terminal, must not take the memory: the file has all.
WriterPtr consoleWriter() {
    WriterPtr writer = inBackground(consoleChannel());
    writer->setProperty("queueSize", "100000");
    return writer;
}

ChannelPtr formatted(const std::vector<ChannelPtr>& sinks) {
    Poco::AutoPtr<Poco::SplitterChannel> splitter(new Poco::SplitterChannel);
    for (const ChannelPtr& sink : sinks) splitter->addChannel(sink);
    Poco::AutoPtr<Poco::PatternFormatter> formatter(new Poco::PatternFormatter(kLinePattern));
    formatter->setProperty("times", "local");
    return new Poco::FormattingChannel(formatter, splitter);
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

// The doubled separator is part of the published path.
std::string logFilePathFor(const std::string& baseName) {
    const Poco::Path directory = paths::applicationDirectory(Poco::Path::dataHome());
    Poco::File(directory).createDirectories();
    return directory.toString() + "/" + baseName + "-" + today() + ".log";
}

// Makes the logger on the first set-up, and again after the host has shut POCO's logging down.
// Written to only where something differs: other threads read it without a lock.
void attachLogger(const std::string& name) {
    Poco::Logger& logger = Poco::Logger::get(name);
    if (logger.getChannel().get() != state().channel.get()) logger.setChannel(state().channel);
    if (logger.getLevel() != Poco::Message::PRIO_TRACE) logger.setLevel(Poco::Message::PRIO_TRACE);
}

// What can fail happens before anything changes. The console stays as it is: waiting for one that
// takes nothing would hold up the file.
void setUp() {
    State& s = state();
    const std::lock_guard<std::mutex> oneSetup(s.setupMutex);
    const std::string baseName = lowerBaseName();
    const std::string path = logFilePathFor(baseName);
    const ChannelPtr file = openedOrKept(path);
    const WriterPtr writer = inBackground(file);
    if (!s.consoleWriter) s.consoleWriter = consoleWriter();
    s.channel->exchange([&] {
        if (s.fileWriter) s.fileWriter->close();
        return formatted({s.consoleWriter, writer});
    });
    s.fileWriter = writer;
    s.file = file;
    s.filePath = path;
    attachLogger(baseName + "_logger");
    const std::lock_guard<std::mutex> lock(s.nameMutex);
    s.loggerName = baseName + "_logger";
    s.logFilePath = path;
}

// @return whether the writer has written everything in time; otherwise it is left to itself.
bool closedInTime(WriterPtr writer) {
    const auto done = std::make_shared<std::promise<void>>();
    std::future<void> closed = done->get_future();
    std::thread([writer, done]() mutable {
        writer->close();
        done->set_value();
    }).detach();
    return closed.wait_for(kConsolePatience) == std::future_status::ready;
}

// Ends the writer threads; later lines are written by the thread that logs them.
// @return whether the console takes any.
bool writeAtOnceFromNowOn() {
    State& s = state();
    const std::lock_guard<std::mutex> oneSetup(s.setupMutex);
    if (!s.fileWriter) return s.consoleWorks;
    s.channel->exchange([&] {
        s.fileWriter->close();
        std::vector<ChannelPtr> sinks{new TolerantChannel(s.file)};
        s.consoleWorks = closedInTime(s.consoleWriter);
        if (s.consoleWorks) sinks.emplace_back(new TolerantChannel(consoleChannel()));
        return formatted(sinks);
    });
    s.fileWriter = nullptr;
    return s.consoleWorks;
}

// Owns the refresh thread. One object per process, from the library's load to deleteLogger().
class LoggerImpl {
public:
    LoggerImpl() { std::cout << "LoggerImpl instance created" << std::endl; }

    ~LoggerImpl() {
        log.information("Log destroying");
        stop();
        log.information("Log destroyed");
    }

    LoggerImpl(const LoggerImpl&) = delete;
    LoggerImpl& operator=(const LoggerImpl&) = delete;

    // False once it has been stopped.
    bool load() {
        if (stopped()) return false;
        setUp();
        std::call_once(_refreshOnce,
                       [this] { _refreshThread = std::thread([this] { refresh(); }); });
        return true;
    }

    void stop() {
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _stopped = true;
        }
        _wake.notify_all();
        if (_refreshThread.joinable()) _refreshThread.join();
    }

private:
    bool stopped() {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _stopped;
    }

    void refresh() {
        std::unique_lock<std::mutex> lock(_mutex);
        while (!_wake.wait_for(lock, kRefreshInterval, [this] { return _stopped; })) {
            lock.unlock();
            refreshNow();
            lock.lock();
        }
    }

    // The disk may be full, the directory gone for a while: the lines go where they went before.
    static void refreshNow() {
        try {
            setUp();
        } catch (const std::exception& exc) {
            log.error(exc);
        }
    }

    std::once_flag _refreshOnce;
    std::thread _refreshThread;
    std::mutex _mutex;
    std::condition_variable _wake;
    bool _stopped = false;  // guarded by _mutex
};

struct Instance {
    std::mutex mutex;  // held while the instance works, so that it is not deleted meanwhile
    LoggerImpl* impl = new LoggerImpl;
};

Instance& instance() {
    static auto* holder = new Instance;
    return *holder;
}

// Creates the instance while the library is loaded.
[[maybe_unused]] const Instance& loadedInstance = instance();

void stopAtLibraryStop() {
    const std::lock_guard<std::mutex> lock(instance().mutex);
    if (instance().impl) instance().impl->stop();
    writeAtOnceFromNowOn();
}

}  // namespace

void loadLogging() {
    static std::once_flag colors;
    std::call_once(colors, [] { platform::enableConsoleColors(); });
    {
        const std::lock_guard<std::mutex> lock(instance().mutex);
        if (!instance().impl) return;
        static std::once_flag stopHook;
        std::call_once(stopHook, [] { onLibraryStop(StopStage::kLogging, stopAtLibraryStop); });
        if (!instance().impl->load()) return;
    }
    log.information("Log initialized");
}

std::string logName() {
    State& s = state();
    const std::lock_guard<std::mutex> lock(s.nameMutex);
    return s.loggerName;
}

void deleteLogger() {
    const std::lock_guard<std::mutex> lock(instance().mutex);
    if (!instance().impl) return;
    delete std::exchange(instance().impl, nullptr);
    if (writeAtOnceFromNowOn()) std::cout << "LoggerImpl instance destroyed" << std::endl;
}

}  // namespace kel
