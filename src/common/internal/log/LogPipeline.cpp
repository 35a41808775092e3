// LogPipeline.cpp - two threads, one queue of records, one backlog of formatted lines per output.
//
//   state                            who may touch it                       lock
//   queue, counts, Output but sink   any thread                             _mutex
//   Output::sink                     its thread, while that one runs        none
//                                    afterwards whoever logs                _directMutex
//   _formatter, _inHand              the thread that has set _formatting    none
//                                    any thread while nobody has            _mutex
//   successor, _directFormatter      whoever logs once the threads ended    _directMutex
//
// Where both locks are held, _directMutex is taken first. Nothing is written, and no file is
// opened, with _mutex held.

#include "LogPipeline.h"

#include <algorithm>
#include <new>
#include <utility>

#include "../platform/Platform.h"
#include "../process/NeverDestroyed.h"
#include "../process/PublishedText.h"
#include "ConsoleSink.h"
#include "UnitLog.h"

namespace kel {

namespace {

constexpr std::size_t kBlockBytes = std::size_t{64} << 10;
constexpr std::size_t kSpareBlocks = 64;
// A thread that has something to do, but may not yet, looks again after this time.
constexpr std::chrono::milliseconds kLookAgain(50);
// A thread that has just written looks by itself once more after this time, so that callers who log
// line after line need not wake it for each: that costs more than the line.
constexpr std::chrono::microseconds kDoze(1000);

// What the two threads log themselves must not wait for room, which only they could make.
thread_local bool onPipelineThread = false;
// What a sink logs on the thread that writes at once would lead into the same sink again.
thread_local bool inSink = false;

// A forked child has none of the threads, and whatever lock they held stays locked in it.
std::atomic<bool> inForkedChild{false};
std::atomic<bool> forkedChildHasColors{false};

// There is one path a day.
PublishedText& forkedChildFile() {
    static NeverDestroyed<PublishedText> path;
    return *path;
}

// Writes each line at once.
class ForkedChild {
public:
    ForkedChild() : _console(forkedChildHasColors) {
        const std::string& path = forkedChildFile().get();
        if (!path.empty()) _file.use(path);
    }

    void log(const Poco::Message& message) {
        const std::lock_guard<std::mutex> lock(_mutex);
        LineBlock block;
        _formatter.append(recordOf(message), block);
        _console.write(block, _progress);
        _file.write(block, _progress);
    }

private:
    std::mutex _mutex;
    Progress _progress;
    LineFormatter _formatter;
    ConsoleSink _console;
    FileSink _file;
};

void logInForkedChild(const Poco::Message& message) {
    static NeverDestroyed<ForkedChild> child;
    child->log(message);
}

class InSink {
public:
    InSink() { inSink = true; }
    ~InSink() { inSink = false; }
    InSink(const InSink&) = delete;
    InSink& operator=(const InSink&) = delete;
};

enum class Attempt { kDone, kFailed, kNoMemory };

// Nothing may leave one of the two threads, which would end the process.
template <typename Call>
Attempt attempted(Call&& call) noexcept {
    try {
        return call() ? Attempt::kDone : Attempt::kFailed;
    } catch (const std::bad_alloc&) {
        return Attempt::kNoMemory;
    } catch (...) {
        return Attempt::kFailed;
    }
}

LineBlockPtr gapLine(std::uint64_t lines, const char* reason) {
    const std::string& name = loggerName();
    const std::string text = std::to_string(lines) + " lines were dropped: " + reason;
    auto block = std::make_shared<LineBlock>();
    const Poco::Message message(name, text, Poco::Message::PRIO_WARNING, "Logger", 0);
    LineFormatter().append(recordOf(message), *block);
    return block;
}

}  // namespace

bool LogPipeline::isForkedChild() noexcept {
    return inForkedChild;
}

void LogPipeline::start(bool coloredConsole) {
    static std::once_flag forks;
    std::call_once(forks, [] {
        forkedChildFile();  // exists before a child can be forked that asks for it
        platform::onFork([] { inForkedChild = true; });
    });
    const std::scoped_lock lock(_directMutex, _mutex);
    if (_running) return;
    forkedChildHasColors = coloredConsole;
    _successor = nullptr;
    _console = std::make_shared<Output>(std::make_unique<ConsoleSink>(coloredConsole));
    _file = std::make_shared<Output>(std::make_unique<FileSink>());
    _spare.reserve(kSpareBlocks);
    _mostQueuedBytes = 0;
    _closing = false;
    _running = true;
    try {
        startThread(_console, "log-console");
        startThread(_file, "log-file");
    } catch (...) {
        _running = false;
        if (_console->thread.joinable()) endThread(*_console, true);
        throw;
    }
}

void LogPipeline::startThread(const OutputPtr& output, const char* name) {
    output->thread = std::thread([this, output, name] {
        platform::beginBackgroundThread(name);
        onPipelineThread = true;
        run(output);
    });
}

void LogPipeline::useFile(const std::string& path) {
    const Lock lock(_mutex);
    forkedChildFile().set(path);
    _wantedFile = path;
    _fileState = FileState::kNotYetKnown;
    _work.notify_all();
}

LogPipeline::FileState LogPipeline::awaitFile() {
    Lock lock(_mutex);
    _room.wait_for(lock, _limits.patience,
                   [this] { return _fileState != FileState::kNotYetKnown; });
    return _fileState;
}

void LogPipeline::log(const Poco::Message& message) {
    if (inForkedChild && !inSink) {
        const InSink noRecursion;
        logInForkedChild(message);
        return;
    }
    const LogRecord record = recordOf(message);
    while (!tryLog(record) && !writeAtOnce(message)) continue;
}

bool LogPipeline::tryLog(const LogRecord& record) {
    if (inSink) return true;
    if (inForkedChild) return false;
    Lock lock(_mutex);
    const auto mayPass = [this] {
        return !_running || (!_closing && _queuedBytes < _limits.queueBytes);
    };
    if (!onPipelineThread) _room.wait(lock, mayPass);
    if (!_running) return false;
    const bool urgent = record.priority <= Poco::Message::PRIO_ERROR;
    const bool wake = (_records.empty() && _resting > 0) || urgent;
    append(record);
    lock.unlock();
    if (wake) _work.notify_one();
    return true;
}

void LogPipeline::append(const LogRecord& record) {
    const std::size_t bytes = RecordBlock::sizeOf(record);
    if (_records.empty() || !_records.back().hasRoomFor(bytes)) {
        if (bytes <= kBlockBytes && !_spare.empty()) {
            _records.push_back(std::move(_spare.back()));
            _spare.pop_back();
        } else {
            _records.emplace_back(std::max(bytes, kBlockBytes));
        }
    }
    _records.back().append(record);
    _queuedBytes += bytes;
    _mostQueuedBytes = std::max(_mostQueuedBytes, _queuedBytes);
    ++_lines;
}

RecordBlock LogPipeline::takeRecords() {
    RecordBlock block = std::move(_records.front());
    _records.pop_front();
    _queuedBytes -= block.used();
    return block;
}

void LogPipeline::recycle(RecordBlock block) {
    if (block.capacity() != kBlockBytes || _spare.size() >= kSpareBlocks) return;
    block.clear();
    _spare.push_back(std::move(block));
}

void LogPipeline::run(const OutputPtr& self) {
    Lock lock(_mutex);
    while (_running && !self->givenUp) {
        if (self == _file && _wantedFile) {
            exchangeFile(*self, lock);
        } else if (mayWrite(*self)) {
            writeNext(*self, lock);
        } else if (mayFormat()) {
            formatNext(lock);
        } else {
            rest(*self, lock);
        }
    }
}

void LogPipeline::rest(Output& output, Lock& lock) {
    if (std::exchange(output.awake, false)) {
        _work.wait_for(lock, kDoze);
        return;
    }
    ++_resting;
    if (!hasRecords() && output.backlog.empty()) {
        _work.wait(lock);
    } else {
        _work.wait_for(lock, kLookAgain);
    }
    --_resting;
}

void LogPipeline::exchangeFile(Output& output, Lock& lock) {
    std::string path = *std::exchange(_wantedFile, std::nullopt);
    output.busy = true;
    output.progress.made();
    lock.unlock();
    const bool opened = static_cast<FileSink&>(*output.sink).use(std::move(path));
    lock.lock();
    output.busy = false;
    output.notBefore = {};
    if (output.givenUp) return;
    if (!_wantedFile) _fileState = opened ? FileState::kOpen : FileState::kRefused;
    _room.notify_all();
}

bool LogPipeline::mayWrite(const Output& output) const {
    if (output.backlog.empty()) return false;
    return !output.failing || Progress::Clock::now() >= output.notBefore;
}

void LogPipeline::writeNext(Output& output, Lock& lock) {
    const LineBlockPtr block = output.backlog.front();
    output.busy = true;
    output.awake = true;
    lock.unlock();
    const Attempt attempt = attempted([&] { return output.sink->write(*block, output.progress); });
    lock.lock();
    output.busy = false;
    if (output.givenUp) return;
    output.failing = attempt != Attempt::kDone;
    if (attempt == Attempt::kNoMemory) {
        output.notBefore = Progress::Clock::now() + kLookAgain;
    } else if (attempt == Attempt::kFailed) {
        output.notBefore = Progress::Clock::now() + _limits.retryPause;
        if (_closing) giveUp(output);
    } else {
        output.backlog.pop_front();
        output.bytes -= block->text.size();
        output.written += block->lines.size();
        if (output.gap > 0 && hasRoom(output)) tellGap(output);
    }
    if (hasRecords()) _work.notify_all();
    if (_closing) _room.notify_all();
}

bool LogPipeline::hasRoom(const Output& output) const {
    return output.bytes < _limits.backlogBytes;
}

bool LogPipeline::mayDrop(const Output& output) const {
    if (output.givenUp) return true;
    return &output == _file.get() ? output.failing : output.progress.noneFor(_limits.patience);
}

bool LogPipeline::mayFormat() const {
    if (_formatting || !hasRecords()) return false;
    if (_noMemorySince && Progress::Clock::now() < _formatNotBefore) return false;
    return (hasRoom(*_console) || mayDrop(*_console)) && (hasRoom(*_file) || mayDrop(*_file));
}

// The console gets the lines first, because a file that cannot be written is reported there.
void LogPipeline::formatNext(Lock& lock) {
    _formatting = true;
    if (!_inHand) _inHand = takeRecords();
    lock.unlock();
    _room.notify_all();
    Backlog forConsole, forFile;
    const Attempt attempt = attempted([&] {
        const LineBlockPtr block = _formatter.format(*_inHand);
        forConsole.push_back(block);
        forFile.push_back(block);
        return true;
    });
    lock.lock();
    _formatting = false;
    if (attempt == Attempt::kNoMemory) {
        formatLater();
        return;
    }
    _noMemorySince.reset();
    if (attempt == Attempt::kDone) {
        give(*_console, std::move(forConsole));
        give(*_file, std::move(forFile));
    } else {
        for (Output* output : {_console.get(), _file.get()}) drop(*output, _inHand->count());
    }
    recycle(*std::exchange(_inHand, std::nullopt));
    _work.notify_all();
}

void LogPipeline::formatLater() {
    const TimePoint now = Progress::Clock::now();
    if (!_noMemorySince) _noMemorySince = now;
    _formatNotBefore = now + kLookAgain;
}

// `block` is a list of one, so that nothing has to be allocated here.
void LogPipeline::give(Output& output, Backlog block) {
    const std::size_t lines = block.front()->lines.size();
    if (output.givenUp || (!hasRoom(output) && mayDrop(output))) {
        drop(output, lines);
        return;
    }
    if (output.gap > 0) tellGap(output);
    if (output.backlog.empty() && !output.busy) output.progress.made();
    output.bytes += block.front()->text.size();
    output.backlog.splice(output.backlog.end(), block);
}

void LogPipeline::drop(Output& output, std::size_t lines) {
    output.gap += lines;
    output.dropped += lines;
}

// Where there is no memory for this line, the gap stays open and a later line tells it.
void LogPipeline::tellGap(Output& output) {
    const bool file = &output == _file.get();
    Backlog line;
    const Attempt attempt = attempted([&] {
        line.push_back(gapLine(
            output.gap, file ? "the log file could not be written" : "the console took none"));
        return true;
    });
    if (attempt != Attempt::kDone) return;
    output.gap = 0;
    output.bytes += line.front()->text.size();
    output.backlog.splice(output.backlog.end(), line);
}

// An output that has nothing to write is not hopeless: its lines may not have been formatted yet.
bool LogPipeline::hopeless(const Output& output) const {
    return (output.busy || !output.backlog.empty()) && output.progress.noneFor(_limits.patience);
}

bool LogPipeline::finished(const Output& output) const {
    if (output.givenUp) return true;
    return !hasRecords() && !_formatting && output.backlog.empty() && !output.busy;
}

void LogPipeline::giveUp(Output& output) {
    for (const auto& block : output.backlog) output.dropped += block->lines.size();
    output.backlog.clear();
    output.bytes = 0;
    output.givenUp = true;
}

// These are lines that could not be formatted for want of memory.
void LogPipeline::giveUpRecords() {
    while (hasRecords()) {
        if (!_inHand) _inHand = takeRecords();
        for (Output* output : {_console.get(), _file.get()}) drop(*output, _inHand->count());
        recycle(*std::exchange(_inHand, std::nullopt));
    }
}

void LogPipeline::awaitOutputs(Lock& lock) {
    while (!finished(*_console) || !finished(*_file)) {
        for (Output* output : {_console.get(), _file.get()}) {
            if (!finished(*output) && hopeless(*output)) giveUp(*output);
        }
        if (!_formatting && _noMemorySince &&
            Progress::Clock::now() - *_noMemorySince >= _limits.patience) {
            giveUpRecords();
        }
        _work.notify_all();
        _room.wait_for(lock, kLookAgain);
    }
}

void LogPipeline::stop() {
    Lock lock(_mutex);
    if (!_running || _closing) return;
    _closing = true;
    for (Output* output : {_console.get(), _file.get()}) {
        output->progress.made();
        output->notBefore = {};  // one that failed gets one more attempt, at once
    }
    _noMemorySince.reset();
    awaitOutputs(lock);
    _running = false;
    _spare.clear();
    const OutputPtr outputs[] = {_console, _file};
    const bool stuck[] = {_console->busy, _file->busy};
    _work.notify_all();
    _room.notify_all();
    lock.unlock();
    for (int i : {0, 1}) endThread(*outputs[i], stuck[i]);
}

void LogPipeline::endThread(Output& output, bool leftBehind) {
    if (leftBehind) {
        platform::keepLoaded();
        output.thread.detach();
    } else {
        output.thread.join();
    }
}

LogPipeline::Outputs LogPipeline::working() const {
    const Lock lock(_mutex);
    return {!_console->givenUp, !_file->givenUp};
}

void LogPipeline::handOver(Poco::AutoPtr<Poco::Channel> successor) {
    const std::lock_guard<std::mutex> lock(_directMutex);
    _successor = std::move(successor);
    if (!_file->givenUp) static_cast<FileSink&>(*_file->sink).close();
}

// Does nothing if start() has come first: the sinks belong to the threads then.
bool LogPipeline::writeAtOnce(const Poco::Message& message) {
    const std::lock_guard<std::mutex> noStart(_directMutex);
    if (isRunning()) return false;
    if (_successor) {
        _successor->log(message);
        return true;
    }
    const InSink noRecursion;
    LineBlock block;
    _directFormatter.append(recordOf(message), block);
    for (Output* output : {_console.get(), _file.get()}) {
        if (!output->givenUp) output->sink->write(block, output->progress);
    }
    return true;
}

bool LogPipeline::isRunning() const {
    const Lock lock(_mutex);
    return _running;
}

LogPipeline::Counters LogPipeline::counters() const {
    const Lock lock(_mutex);
    Counters all;
    all.lines = _lines;
    all.queuedBytes = _queuedBytes;
    all.mostQueuedBytes = _mostQueuedBytes;
    if (!_file) return all;
    all.linesWritten = _file->written;
    all.droppedConsole = _console->dropped;
    all.droppedFile = _file->dropped;
    return all;
}

}  // namespace kel
