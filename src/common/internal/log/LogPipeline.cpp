// LogPipeline.cpp - two threads, one queue of records, one backlog of formatted lines per output.
//
//   state                            who may touch it                       lock
//   queue, counts, Output but sink   any thread                             _mutex
//   Output::sink                     its thread, while that one runs        none
//                                    afterwards whoever logs                _directMutex
//   _formatter                       the thread that has set _formatting    none
//   successor, _directFormatter      whoever logs once the threads ended    _directMutex
//
// Where both locks are held, _directMutex is taken first. Nothing is written, and no file is
// opened, with _mutex held.

#include "LogPipeline.h"

#include <algorithm>
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
    _closing = false;
    _running = true;
    startThread(_console, "log-console");
    startThread(_file, "log-file");
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
    if (inSink) return;
    if (inForkedChild) {
        const InSink noRecursion;
        logInForkedChild(message);
        return;
    }
    const LogRecord record = recordOf(message);
    Lock lock(_mutex);
    const auto mayPass = [this] {
        return !_running || (!_closing && _queuedBytes < _limits.queueBytes);
    };
    if (!onPipelineThread) _room.wait(lock, mayPass);
    if (!_running) {
        lock.unlock();
        writeAtOnce(message);
        return;
    }
    const bool urgent = record.priority <= Poco::Message::PRIO_ERROR;
    const bool wake = (_records.empty() && _resting > 0) || urgent;
    append(record);
    lock.unlock();
    if (wake) _work.notify_one();
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
    if (_records.empty() && output.backlog.empty()) {
        _work.wait(lock);
    } else {
        _work.wait_for(lock, kLookAgain);
    }
    --_resting;
}

void LogPipeline::exchangeFile(Output& output, Lock& lock) {
    const std::string path = *std::exchange(_wantedFile, std::nullopt);
    output.busy = true;
    output.progress.made();
    lock.unlock();
    const bool opened = static_cast<FileSink&>(*output.sink).use(path);
    lock.lock();
    output.busy = false;
    output.notBefore = {};
    if (output.givenUp) return;
    if (!_wantedFile) _fileState = opened ? FileState::kOpen : FileState::kRefused;
    _room.notify_all();
}

// At the end a file that failed gets one more attempt, at once.
bool LogPipeline::mayWrite(const Output& output) const {
    if (output.backlog.empty()) return false;
    return !output.failing || _closing || Progress::Clock::now() >= output.notBefore;
}

void LogPipeline::writeNext(Output& output, Lock& lock) {
    const LineBlockPtr block = output.backlog.front();
    output.busy = true;
    output.awake = true;
    lock.unlock();
    const bool written = output.sink->write(*block, output.progress);
    lock.lock();
    output.busy = false;
    if (output.givenUp) return;
    output.failing = !written;
    if (!written) {
        output.notBefore = Progress::Clock::now() + _limits.retryPause;
        if (_closing) giveUp(output);
    } else {
        output.backlog.pop_front();
        output.bytes -= block->text.size();
        output.written += block->lines.size();
        if (output.gap > 0 && hasRoom(output)) tellGap(output);
    }
    if (!_records.empty()) _work.notify_all();
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
    if (_formatting || _records.empty()) return false;
    return (hasRoom(*_console) || mayDrop(*_console)) && (hasRoom(*_file) || mayDrop(*_file));
}

// The console gets the lines first: a file that cannot be written has something to tell there.
void LogPipeline::formatNext(Lock& lock) {
    _formatting = true;
    RecordBlock records = takeRecords();
    lock.unlock();
    _room.notify_all();
    LineBlockPtr block = _formatter.format(records);
    lock.lock();
    recycle(std::move(records));
    give(*_console, block);
    give(*_file, block);
    _formatting = false;
    _work.notify_all();
}

void LogPipeline::give(Output& output, const LineBlockPtr& block) {
    if (output.givenUp || (!hasRoom(output) && mayDrop(output))) {
        output.gap += block->lines.size();
        output.dropped += block->lines.size();
        return;
    }
    if (output.gap > 0) tellGap(output);
    if (output.backlog.empty() && !output.busy) output.progress.made();
    output.backlog.push_back(block);
    output.bytes += block->text.size();
}

void LogPipeline::tellGap(Output& output) {
    const bool file = &output == _file.get();
    const LineBlockPtr line =
        gapLine(output.gap, file ? "the log file could not be written" : "the console took none");
    output.gap = 0;
    output.backlog.push_back(line);
    output.bytes += line->text.size();
}

// The other output's lines may still be unformatted, so nothing to do is no lack of progress.
bool LogPipeline::hopeless(const Output& output) const {
    return (output.busy || !output.backlog.empty()) && output.progress.noneFor(_limits.patience);
}

bool LogPipeline::finished(const Output& output) const {
    if (output.givenUp) return true;
    return _records.empty() && !_formatting && output.backlog.empty() && !output.busy;
}

void LogPipeline::giveUp(Output& output) {
    for (const auto& block : output.backlog) output.dropped += block->lines.size();
    output.backlog.clear();
    output.bytes = 0;
    output.givenUp = true;
}

void LogPipeline::awaitOutputs(Lock& lock) {
    while (!finished(*_console) || !finished(*_file)) {
        for (Output* output : {_console.get(), _file.get()}) {
            if (!finished(*output) && hopeless(*output)) giveUp(*output);
        }
        _work.notify_all();
        _room.wait_for(lock, kLookAgain);
    }
}

void LogPipeline::stop() {
    Lock lock(_mutex);
    if (!_running || _closing) return;
    _closing = true;
    _console->progress.made();
    _file->progress.made();
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

void LogPipeline::writeAtOnce(const Poco::Message& message) {
    const std::lock_guard<std::mutex> lock(_directMutex);
    if (_successor) {
        _successor->log(message);
        return;
    }
    const InSink noRecursion;
    LineBlock block;
    _directFormatter.append(recordOf(message), block);
    for (Output* output : {_console.get(), _file.get()}) {
        if (!output->givenUp) output->sink->write(block, output->progress);
    }
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
