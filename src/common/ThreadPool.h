#pragma once

#include <Poco/TaskManager.h>
#include <Poco/ThreadPool.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "Export.h"
#include "PoolStatistics.h"

namespace kel {

class TaskThreads;

/// A Poco::ThreadPool that runs callables. What a task throws is logged and ends only that task.
/// A task runs at once or is refused; it never waits for another one to end.
///
/// Callables run on threads of this class, of which there are never more than capacity(). What is
/// given to the base, as a Poco::ThreadPool, runs on POCO's own; the operations below that POCO
/// has as well count and await both kinds.
///
/// Threads: all operations may be called from any thread, also from a task. A task may also
/// release the last reference to its pool.
class KEL_API ThreadPool : public Poco::ThreadPool,
                           public std::enable_shared_from_this<ThreadPool> {
public:
    /// @param idleTime   seconds after which a thread above `minCapacity` ends.
    /// @param stackSize  bytes; 0 for the system's default.
    /// @throws Poco::AssertionViolationException  unless 1 <= `minCapacity` <= `maxCapacity` and
    ///         `idleTime` > 0.
    /// @throws Poco::SystemException  the system has no thread for POCO's part of the pool.
    ThreadPool(int minCapacity = 1, int maxCapacity = 32, int idleTime = 60, int stackSize = 0);

    /// As above; `name` begins the names of the worker threads.
    ThreadPool(const std::string& name, int minCapacity, int maxCapacity, int idleTime,
               int stackSize);

    /// Calls stop(). What runs on threads of the base class is then awaited, up to 10 s for each.
    ~ThreadPool();

    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    /// The process-wide pool "default" of 1 to 32 threads, made by the first call and never
    /// replaced. stopLibrary() stops it; the next task after that starts its threads again.
    static ThreadPool& defaultPool();

    /// Runs `func` on a pooled thread; returns as soon as it is sure of one.
    /// @throws Poco::NoThreadAvailableException  all threads are busy; `func` will not run.
    /// @throws Poco::IllegalStateException       the pool has been stopped; `func` will not run.
    /// @throws Poco::SystemException             no thread could be started; `func` will not run.
    /// A refusal is also logged.
    void start(std::function<void()> func);

    /// As above, on a thread named `name` meanwhile.
    void start(std::function<void()> func, const std::string& name);

    /// As start(), for a caller who knows what to do with a refusal: neither throws then nor logs.
    /// @param func      moved from only where it is accepted.
    /// @param patience  longest wait for a thread where all are busy.
    /// @return whether `func` will run.
    /// @throws Poco::SystemException  no thread could be started; `func` will not run.
    bool tryStart(std::function<void()>&& func,
                  std::chrono::milliseconds patience = std::chrono::milliseconds::zero());

    /// Tasks that have been accepted and have not ended.
    std::size_t pendingTasks();

    /// Refuses further tasks and waits until those accepted have ended, 10 s at the longest and
    /// not for the one that calls it; tasks that take longer are logged, go on, and keep what they
    /// hold. Repeatable.
    void stop();

    /// As POCO's: threads that run something, that exist, and that could run something.
    int used() const;
    int allocated() const;
    int available() const;

    /// The same at one go.
    PoolStatistics statistics() const;

    /// As POCO's: waits until nothing runs, however long that takes.
    void joinAll();

    /// As POCO's: stop(), after which the pool takes tasks again.
    void stopAll();

private:
    ThreadPool(const std::string& name, int minCapacity, int maxCapacity, int idleTime,
               int stackSize, bool (*mayBegin)());
    std::size_t places() const;

    // Shared with the threads, which may end after the pool.
    const std::shared_ptr<TaskThreads> _threads;
};

/// POCO's task manager (long-running, cancellable Poco::Task objects with progress notifications)
/// with this library's defaults. Adds no behaviour; errors and threads are as POCO's.
class KEL_API TaskManager : public Poco::TaskManager {
public:
    /// Runs tasks on `pool`, which the caller keeps alive longer than the manager.
    TaskManager(Poco::ThreadPool& pool);

    /// Runs tasks on a pool of its own. `idleTime` in seconds, `stackSize` in bytes (0: default).
    TaskManager(const std::string& name = "", int minCapacity = 2, int maxCapacity = 16,
                int idleTime = 60, int stackSize = 0);

    /// Waits for the tasks of its own pool, 10 s at the longest before POCO's own 10 s for each
    /// that is left; call cancelAll() first to end them early.
    ~TaskManager();

private:
    explicit TaskManager(std::unique_ptr<Poco::ThreadPool> pool);

    const std::unique_ptr<Poco::ThreadPool> _ownPool;
};

}  // namespace kel
