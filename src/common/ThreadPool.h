#pragma once

#include <Poco/TaskManager.h>
#include <Poco/ThreadPool.h>

#include <functional>
#include <memory>
#include <string>

#include "Export.h"

namespace kel {

/// A Poco::ThreadPool that runs callables. What a task throws is logged and ends only that task.
/// There is no queue: a task either gets a thread at once or is refused.
/// Threads: all operations may be called from any thread, also from a task, except stop() and the
/// destructor, which wait for the tasks.
class KEL_API ThreadPool : public Poco::ThreadPool,
                           public std::enable_shared_from_this<ThreadPool> {
public:
    /// @param idleTime   seconds after which a thread above `minCapacity` ends.
    /// @param stackSize  bytes; 0 for the system's default.
    ThreadPool(int minCapacity = 1, int maxCapacity = 32, int idleTime = 60, int stackSize = 0);

    /// As above; `name` begins the names of the worker threads.
    ThreadPool(const std::string& name, int minCapacity, int maxCapacity, int idleTime,
               int stackSize);

    /// Calls stop().
    ~ThreadPool();

    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    /// The process-wide pool "default" of 1 to 32 threads. It is never replaced.
    static ThreadPool& defaultPool();

    /// Runs `func` on a pooled thread; returns as soon as a thread has it.
    /// @throws Poco::NoThreadAvailableException  all threads are busy; `func` will not run.
    /// @throws Poco::IllegalStateException       the pool has been stopped; `func` will not run.
    /// A refusal is also logged.
    void start(std::function<void()> func);

    /// As above, on a thread named `name` meanwhile.
    void start(std::function<void()> func, const std::string& name);

    /// Tasks that have been accepted and have not ended.
    std::size_t pendingTasks();

    /// Refuses further tasks and waits until those accepted have ended, 10 s at the longest; tasks
    /// that take longer are logged, go on, and keep what they hold. Repeatable.
    void stop();

private:
    class RunnableAdapter;
    struct Tasks;

    // Shared with the adapters, which may end after the pool.
    const std::shared_ptr<Tasks> _tasks;
};

namespace detail {
/// Lets TaskManager have its pool before the base that runs on it.
struct OwnPool {
    std::unique_ptr<Poco::ThreadPool> pool;
};
}  // namespace detail

/// POCO's task manager (long-running, cancellable Poco::Task objects with progress notifications)
/// with this library's defaults. Adds no behaviour.
class KEL_API TaskManager : private detail::OwnPool, public Poco::TaskManager {
public:
    /// Runs tasks on `pool`, which the caller keeps alive longer than the manager.
    explicit TaskManager(Poco::ThreadPool& pool);

    /// Runs tasks on a pool of its own. `idleTime` in seconds, `stackSize` in bytes (0: default).
    explicit TaskManager(const std::string& name = "", int minCapacity = 2, int maxCapacity = 16,
                         int idleTime = 60, int stackSize = 0);

    /// Waits for the tasks of its own pool, for each at most POCO's 10 s; call cancelAll() first
    /// to end them early.
    ~TaskManager();
};

}  // namespace kel
