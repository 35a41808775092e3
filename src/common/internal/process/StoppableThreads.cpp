#include "StoppableThreads.h"

#include <algorithm>
#include <utility>

namespace kel {

void StoppableThreads::start(const std::string& name, Poco::Thread::Priority priority,
                             std::function<void()> work) {
    std::list<std::unique_ptr<Poco::Thread>> started;  // nothing may fail once the thread runs
    started.push_back(std::make_unique<Poco::Thread>(name));
    Poco::Thread& thread = *started.front();
    if (priority != Poco::Thread::PRIO_NORMAL) thread.setPriority(priority);
    const std::lock_guard<std::mutex> lock(_mutex);
    joinEnded();
    thread.startFunc(std::move(work));
    _threads.splice(_threads.end(), started);
}

// The caller holds the mutex.
void StoppableThreads::joinEnded() {
    _threads.remove_if([](const auto& thread) { return thread->tryJoin(0); });
}

bool StoppableThreads::joinAll(std::chrono::milliseconds patience) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + patience;
    std::list<std::unique_ptr<Poco::Thread>> threads;
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        threads.swap(_threads);
    }
    const Poco::Thread* const own = Poco::Thread::current();
    bool all = true;
    for (auto& thread : threads) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        if (thread.get() != own && thread->tryJoin(std::max<long>(0, left.count()))) continue;
        if (thread.get() != own) all = false;
        static_cast<void>(thread.release());  // still in use by the thread itself
    }
    return all;
}

}  // namespace kel
