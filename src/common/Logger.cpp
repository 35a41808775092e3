// Logger.cpp - one logger per executable, to the coloured console and a dated file.
//
// The POCO logger is made once and never destroyed while threads may use it. It writes to an
// ExchangeableChannel; a set-up builds a new chain (formatter, then one asynchronous writer each
// for console and file) and exchanges it there:
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
#include <iostream>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "internal/ExchangeableChannel.h"
#include "internal/ExitHooks.h"
#include "internal/Log.h"
#include "internal/Paths.h"
#include "internal/Platform.h"

namespace kel {

namespace {

constexpr UnitLog log("src/common/Logger");
constexpr auto kRefreshInterval = std::chrono::seconds(60);
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

// What the logger writes to between two set-ups.
struct Chain {
    ChannelPtr head;
    ChannelPtr file;
    std::vector<Poco::AutoPtr<Poco::AsyncChannel>> writers;

    void drain() const {
        for (Poco::AutoPtr<Poco::AsyncChannel> writer : writers) writer->close();
    }
};

struct State {
    std::mutex setupMutex;
    Chain chain;            // guarded by setupMutex
    std::string chainPath;  // guarded by setupMutex

    std::mutex nameMutex;
    std::string loggerName;   // guarded by nameMutex
    std::string logFilePath;  // guarded by nameMutex

    Poco::AutoPtr<ExchangeableChannel> channel{new ExchangeableChannel};
};

State& state() {
    static auto* instance = new State;
    return *instance;
}

enum class Writing { kInBackground, kAtOnce };

ChannelPtr consoleChannel() {
    Poco::AutoPtr<Poco::ColorConsoleChannel> console(new Poco::ColorConsoleChannel);
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

// Windows opens no file for two writers: while the file in use is still there, the next chain may
// go on with it. A file that was removed is opened anew or is an error.
ChannelPtr openedOrKept(const std::string& path) {
    try {
        return fileChannel(path);
    } catch (const Poco::FileException&) {
        if (path != state().chainPath || !Poco::File(path).exists()) throw;
        return state().chain.file;
    }
}

Chain buildChain(ChannelPtr file, Writing writing) {
    Chain chain;
    chain.file = std::move(file);
    Poco::AutoPtr<Poco::SplitterChannel> splitter(new Poco::SplitterChannel);
    for (const ChannelPtr& sink : {consoleChannel(), chain.file}) {
        ChannelPtr tolerant(new TolerantChannel(sink));
        if (writing == Writing::kInBackground) {
            chain.writers.emplace_back(new Poco::AsyncChannel(tolerant, Poco::Thread::PRIO_LOWEST));
            tolerant = chain.writers.back();
        }
        splitter->addChannel(tolerant);
    }
    Poco::AutoPtr<Poco::PatternFormatter> formatter(new Poco::PatternFormatter(kLinePattern));
    formatter->setProperty("times", "local");
    chain.head = new Poco::FormattingChannel(formatter, splitter);
    return chain;
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

void exchangeChain(Chain next) {
    State& s = state();
    s.channel->exchange(next.head, [&] { s.chain.drain(); });
    s.chain = std::move(next);
}

// Everything that can fail happens before anything changes.
void setUp() {
    State& s = state();
    const std::lock_guard<std::mutex> oneSetup(s.setupMutex);
    const std::string baseName = lowerBaseName();
    const std::string path = logFilePathFor(baseName);
    exchangeChain(buildChain(openedOrKept(path), Writing::kInBackground));
    s.chainPath = path;
    attachLogger(baseName + "_logger");
    const std::lock_guard<std::mutex> lock(s.nameMutex);
    s.loggerName = baseName + "_logger";
    s.logFilePath = path;
}

// Ends the writer threads; later lines are written by the thread that logs them.
void writeAtOnceFromNowOn() {
    State& s = state();
    const std::lock_guard<std::mutex> oneSetup(s.setupMutex);
    if (s.chain.writers.empty()) return;
    exchangeChain(buildChain(s.chain.file, Writing::kAtOnce));
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

    void load() {
        if (stopped()) return;
        setUp();
        std::call_once(_refreshOnce,
                       [this] { _refreshThread = std::thread([this] { refresh(); }); });
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
        std::call_once(stopHook, [] { onLibraryStop(ExitStage::kLogging, stopAtLibraryStop); });
        instance().impl->load();
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
    writeAtOnceFromNowOn();
    std::cout << "LoggerImpl instance destroyed" << std::endl;
}

}  // namespace kel
