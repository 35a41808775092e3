#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "../../PoolStatistics.h"
#include "TaskThreads.h"

namespace kel {

/// Threads for callables; what one throws is logged and ends only that one.
/// @param name      begins the threads' names.
/// @param kept      threads that do not end when idle.
/// @param mayBegin  asked before the first task, and the first after a stop.
std::shared_ptr<TaskThreads> makeLoggingThreads(const std::string& name, std::size_t kept,
                                                std::chrono::seconds idleTime, bool (*mayBegin)());

/// Has `task` run at once, where fewer than `capacity` run. A refusal is logged.
/// @throws Poco::NoThreadAvailableException  all places are taken; the task will not run.
/// @throws Poco::IllegalStateException       the threads have been stopped; it will not run.
/// @throws Poco::SystemException             no thread could be started; it will not run.
void startOrThrow(TaskThreads& threads, TaskThreads::Task task, std::size_t capacity,
                  int stackSize);

/// As above, but waits up to `patience` for a place, and neither throws nor logs where there is
/// none.
/// @param func  moved from only where it is accepted.
/// @return whether `func` will run.
/// @throws Poco::SystemException  no thread could be started; `func` will not run.
bool tryToStart(TaskThreads& threads, std::function<void()>&& func, std::size_t capacity,
                std::chrono::milliseconds patience, int stackSize);

/// Refuses further tasks and waits for those that run, 10 s at the longest; how many are left then
/// is logged. Repeatable.
void stopOrLog(TaskThreads& threads, const std::string& name);

/// A pool of the library's own, which begins with the first task. Threads: any.
class TaskPool {
public:
    TaskPool(const std::string& name, std::size_t capacity);

    /// Errors as startOrThrow(); the thread is named `name` meanwhile.
    void start(std::function<void()> func, const std::string& name = "");

    /// As tryToStart().
    bool tryStart(std::function<void()>&& func,
                  std::chrono::milliseconds patience = std::chrono::milliseconds::zero());

    /// As stopOrLog(), for good.
    void stop();

    PoolStatistics statistics() const;

private:
    const std::string _name;
    const std::size_t _capacity;
    const std::shared_ptr<TaskThreads> _threads;  // shared with them: they may end after the pool
};

}  // namespace kel
