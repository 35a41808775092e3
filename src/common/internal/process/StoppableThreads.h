#pragma once

#include <Poco/Thread.h>

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>

namespace kel {

/// Threads of one long job each, which may outlive what they work for, kept so that a stop can join
/// them before the library is unloaded. (Short tasks share threads in TaskThreads.) Held in a
/// NeverDestroyed. Threads: any.
class StoppableThreads {
public:
    /// Runs `work`, which must throw nothing, on a thread of its own.
    /// @throws Poco::SystemException  the system has no thread for it.
    void start(const std::string& name, Poco::Thread::Priority priority,
               std::function<void()> work);

    /// Joins every thread but the calling one, waiting `patience` in all. What has not ended by
    /// then is left behind for good.
    /// @return whether all had ended.
    bool joinAll(std::chrono::milliseconds patience);

private:
    void joinEnded();

    std::mutex _mutex;
    std::list<std::unique_ptr<Poco::Thread>> _threads;  // guarded by _mutex
};

}  // namespace kel
