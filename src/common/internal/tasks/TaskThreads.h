#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kel {

/// The threads behind a pool. A thread that ends a task takes the next accepted one itself; a
/// further thread is woken, or started, only where an accepted task would otherwise wait for one
/// that is running, so that no task waits behind a blocked one.
/// Held by std::shared_ptr: a task that outlasts its pool keeps what it runs on.
/// Threads: any. Memory: never more than `capacity` tasks and as many threads.
class TaskThreads : public std::enable_shared_from_this<TaskThreads> {
public:
    struct Task {
        std::function<void()> func;
        std::string name;  // of the thread meanwhile; empty for the thread's own
    };

    struct Settings {
        std::string name;  // begins the threads' names
        std::size_t kept;  // threads that do not end when idle
        std::chrono::seconds idleTime;
        void (*run)(const std::function<void()>&);  // calls a task; throws nothing
        bool (*mayBegin)();  // asked before the first task, and the first after reopen()
    };

    enum class Answer { kAccepted, kFull, kStopped };

    explicit TaskThreads(Settings settings);
    ~TaskThreads();
    TaskThreads(const TaskThreads&) = delete;
    TaskThreads& operator=(const TaskThreads&) = delete;

    /// Has `task` run at once. Where `capacity` tasks are accepted and have not ended, it waits up
    /// to `patience` for one of them to end.
    /// @param task       moved from only where it is accepted.
    /// @param stackSize  of a thread that is started, in bytes; 0 for the system's default.
    /// @throws Poco::SystemException  no thread could be started; the task will not run.
    Answer accept(Task& task, std::size_t capacity, std::chrono::milliseconds patience,
                  int stackSize);

    /// Tasks that have been accepted and have not ended.
    std::size_t accepted() const;

    std::size_t threads() const;

    /// Waits until all tasks have ended, the calling one apart.
    /// @return those that have not.
    std::size_t awaitEnd(std::chrono::milliseconds patience);

    /// Refuses further tasks, waits for the accepted ones as above and joins the threads that have
    /// none. The others end with their tasks. Repeatable.
    std::size_t stop(std::chrono::milliseconds patience);

    /// Takes tasks again after stop().
    void reopen();

private:
    class Worker;
    using WorkerPtr = std::shared_ptr<Worker>;
    using Lock = std::unique_lock<std::mutex>;

    bool awaitPlace(Lock& lock, std::size_t capacity, std::chrono::milliseconds patience);
    WorkerPtr call(int stackSize);
    void startWorker(int stackSize);
    void work(const WorkerPtr& worker);
    void runQueue(Lock& lock, Worker& worker);
    bool looksOnceMore(Lock& lock);
    bool awaitCall(Lock& lock, const WorkerPtr& worker);
    void leave(const WorkerPtr& worker);
    std::size_t othersAccepted() const;

    const Settings _settings;

    mutable std::mutex _mutex;
    // Guarded by _mutex. The queue never holds more tasks than workers are coming for it.
    std::deque<Task> _queue;
    std::size_t _accepted = 0;
    std::size_t _coming = 0;        // called or started, and not at the queue yet
    std::list<WorkerPtr> _workers;  // that have not left
    std::vector<WorkerPtr> _idle;   // with room for all; the last that became idle is called first
    std::list<WorkerPtr> _left;     // to be joined
    std::size_t _started = 0;       // numbers the threads
    std::size_t _waitingForPlace = 0;
    bool _begun = false;
    bool _closed = false;
    bool _leftAlone = false;  // nobody joins who leaves from now on
    std::condition_variable _placeFree;
    std::condition_variable _changed;  // tasks ended or a worker left, told while somebody waits
    std::size_t _waitingForChange = 0;
};

}  // namespace kel
