#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "FileSink.h"
#include "LineFormatter.h"
#include "LogSink.h"
#include "RecordBlock.h"

namespace kel {

/// Takes lines from any thread and writes them to the log file and the console, each on a thread of
/// its own. A caller copies its line into a queue and returns. Whichever of the two threads is free
/// takes the queue's next block, formats it once and hands it to both.
///
/// Bounds, all in bytes: beyond `queueBytes` of unformatted lines callers wait; beyond
/// `backlogBytes` of formatted lines for one output nothing more is formatted until that one has
/// gone on. The exceptions: a console that has taken nothing for `patience`, and a file that
/// refuses to be written, lose their lines beyond that bound; a line in their place tells how many.
///
/// Where the two threads get no memory they try again soon, with the lines as they are. Where log()
/// gets none, it throws std::bad_alloc.
///
/// Threads: any, unless an operation says otherwise. Must never be destroyed once it has started,
/// since a thread that waits for a disk may have to be left behind.
class LogPipeline {
public:
    struct Limits {
        std::size_t queueBytes = std::size_t{64} << 20;
        std::size_t backlogBytes = std::size_t{64} << 20;
        std::chrono::milliseconds patience{2000};
        std::chrono::milliseconds retryPause{1000};  // between attempts at a file that failed
    };

    struct Counters {
        std::uint64_t lines = 0;           // that were taken in
        std::uint64_t linesWritten = 0;    // to the file
        std::uint64_t droppedConsole = 0;  // lines that the console lost
        std::uint64_t droppedFile = 0;
        std::size_t queuedBytes = 0;  // not yet formatted
        std::size_t mostQueuedBytes = 0;
    };

    /// Whether this process was forked from one that had started a pipeline. There is none in it:
    /// log() writes each line at once, and nothing else may be called.
    static bool isForkedChild() noexcept;

    explicit LogPipeline(const Limits& limits) : _limits(limits) {}
    LogPipeline(const LogPipeline&) = delete;
    LogPipeline& operator=(const LogPipeline&) = delete;

    /// Starts the two threads, unless they run. Not at the same time as stop().
    /// @throws std::system_error  a thread could not be started; there is none then.
    void start(bool coloredConsole);

    /// Has the file exchanged between two lines by the thread that writes it.
    void useFile(const std::string& path);

    enum class FileState { kOpen, kRefused, kNotYetKnown };
    /// Waits until the last useFile() has been tried, for the pipeline's patience at the longest.
    FileState awaitFile();

    /// One line. Waits only while the queue is full, or while stop() writes out what there is.
    void log(const Poco::Message& message);

    /// The same for a line of which there is no message.
    /// @return false, with nothing done, where log() has to be called: after stop(), and in a
    ///         forked child.
    bool tryLog(const LogRecord& record);

    /// Writes out what there is, however long it takes, as long as an output makes progress; one
    /// that makes none for `patience` is given up, and so are lines for which there is no memory.
    /// Ends the threads and closes the file. Lines logged afterwards are written by the thread that
    /// logs them. Not on a thread that holds a lock which a logging thread needs. Repeatable.
    void stop();

    /// Gives every later line to `successor`. After stop().
    void handOver(Poco::AutoPtr<Poco::Channel> successor);

    struct Outputs {
        bool console;
        bool file;
    };
    /// Which outputs have not been given up. After stop().
    Outputs working() const;

    Counters counters() const;

private:
    using Lock = std::unique_lock<std::mutex>;
    using TimePoint = Progress::Clock::time_point;
    using Backlog = std::list<LineBlockPtr>;  // takes over an element without asking for memory

    // One of the two ends, with what it still has to write. The sink belongs to its thread, and to
    // whoever holds _directMutex when the thread has ended; all else is guarded by _mutex.
    struct Output {
        explicit Output(std::unique_ptr<LogSink> itsSink) : sink(std::move(itsSink)) {}

        const std::unique_ptr<LogSink> sink;
        Progress progress;  // own locking
        Backlog backlog;
        std::size_t bytes = 0;
        bool busy = false;     // its thread is in the sink
        bool awake = false;    // has written since it last found nothing to do
        bool failing = false;  // the last write failed
        bool givenUp = false;
        TimePoint notBefore;    // the next attempt, while it is failing
        std::uint64_t gap = 0;  // lines lost since the last one that is in the backlog
        std::uint64_t dropped = 0;
        std::uint64_t written = 0;
        std::thread thread;
    };
    using OutputPtr = std::shared_ptr<Output>;

    void startThread(const OutputPtr& output, const char* name);
    void run(const OutputPtr& self);
    bool mayWrite(const Output& output) const;
    void writeNext(Output& output, Lock& lock);
    void exchangeFile(Output& output, Lock& lock);
    bool mayFormat() const;
    bool hasRecords() const { return _inHand || !_records.empty(); }
    void formatNext(Lock& lock);
    void formatLater();
    void rest(Output& output, Lock& lock);

    bool hasRoom(const Output& output) const;
    bool mayDrop(const Output& output) const;
    void give(Output& output, Backlog block);
    static void drop(Output& output, std::size_t lines);
    void tellGap(Output& output);

    void append(const LogRecord& record);
    RecordBlock takeRecords();
    void recycle(RecordBlock block);

    bool finished(const Output& output) const;
    bool hopeless(const Output& output) const;
    void awaitOutputs(Lock& lock);
    void giveUp(Output& output);
    void giveUpRecords();
    static void endThread(Output& output, bool leftBehind);
    bool writeAtOnce(const Poco::Message& message);
    bool isRunning() const;

    const Limits _limits;

    // Guarded by _mutex.
    mutable std::mutex _mutex;
    std::condition_variable _work;  // for the two threads
    std::condition_variable _room;  // for callers, and for those who wait for the threads
    std::deque<RecordBlock> _records;
    std::vector<RecordBlock> _spare;
    std::size_t _queuedBytes = 0;
    std::size_t _mostQueuedBytes = 0;
    std::uint64_t _lines = 0;
    int _resting = 0;  // threads that wait for work
    bool _running = false;
    bool _closing = false;
    bool _formatting = false;
    std::optional<TimePoint> _noMemorySince;  // for the records in hand
    TimePoint _formatNotBefore;
    std::optional<std::string> _wantedFile;
    FileState _fileState = FileState::kNotYetKnown;
    OutputPtr _console;  // these two change under _directMutex too
    OutputPtr _file;

    // Whoever has set _formatting uses these without a lock. What is in hand is formatted next, or
    // again; it is exchanged with _mutex held.
    LineFormatter _formatter;
    std::optional<RecordBlock> _inHand;

    // Guarded by _directMutex, which may be held while something is written.
    std::mutex _directMutex;
    Poco::AutoPtr<Poco::Channel> _successor;
    LineFormatter _directFormatter;
};

/// Those of the process's own pipeline; none in a forked child.
LogPipeline::Counters logCounters();

/// The channel at the library's POCO logger.
class PipelineChannel final : public Poco::Channel {
public:
    explicit PipelineChannel(LogPipeline& pipeline) : _pipeline(pipeline) {}

    void log(const Poco::Message& message) override { _pipeline.log(message); }

    /// As LogPipeline::tryLog().
    bool tryLog(const LogRecord& record) { return _pipeline.tryLog(record); }

private:
    LogPipeline& _pipeline;
};

}  // namespace kel
