// ThreadPool.cpp - callables on threads that are ours, beside POCO's pool.
//
// POCO hands each task to a thread of its choice and takes the thread back afterwards, which costs
// two switches of threads a task; and it joins the threads that are busy one after the other, 10 s
// each, the caller's own included. So the base serves only what is given to it as a Runnable, and
// callables run on TaskThreads. Both count against the capacity of the base.

#include "ThreadPool.h"

#include <Poco/Thread.h>

#include <algorithm>
#include <atomic>

#include "internal/process/LibraryStop.h"
#include "internal/process/NeverDestroyed.h"
#include "internal/tasks/DefaultPool.h"
#include "internal/tasks/TaskPool.h"

namespace kel {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kStopPatience = 10s;

bool always() {
    return true;
}

std::shared_ptr<TaskThreads> makeThreads(const std::string& name, int kept, int idleTime,
                                         bool (*mayBegin)()) {
    return makeLoggingThreads(name, static_cast<std::size_t>(kept), std::chrono::seconds(idleTime),
                              mayBegin);
}

// The default pool from its first use on.
std::atomic<ThreadPool*> usedDefaultPool{nullptr};

void stopDefaultPool() {
    usedDefaultPool.load()->stopAll();
}

// The default pool's threads begin anew after a stop of the library, which has to stop them again.
bool defaultPoolMayBegin() {
    if (processIsEnding()) return false;
    onLibraryStop(StopStage::kTaskPools, stopDefaultPool);
    return true;
}

}  // namespace

ThreadPool::ThreadPool(int minCapacity, int maxCapacity, int idleTime, int stackSize)
    : Poco::ThreadPool(minCapacity, maxCapacity, idleTime, stackSize),
      _threads(makeThreads("", minCapacity, idleTime, always)) {}

ThreadPool::ThreadPool(const std::string& name, int minCapacity, int maxCapacity, int idleTime,
                       int stackSize)
    : ThreadPool(name, minCapacity, maxCapacity, idleTime, stackSize, always) {}

ThreadPool::ThreadPool(const std::string& name, int minCapacity, int maxCapacity, int idleTime,
                       int stackSize, bool (*mayBegin)())
    : Poco::ThreadPool(name, minCapacity, maxCapacity, idleTime, stackSize),
      _threads(makeThreads(name, minCapacity, idleTime, mayBegin)) {}

ThreadPool::~ThreadPool() {
    stop();
}

ThreadPool& ThreadPool::defaultPool() {
    static ThreadPool* const pool = [] {
        static NeverDestroyed<std::shared_ptr<ThreadPool>> made(
            new ThreadPool("default", 1, 32, 60, 0, defaultPoolMayBegin));
        usedDefaultPool = made->get();
        // POCO's part of the pool has a thread from the beginning.
        onLibraryStop(StopStage::kTaskPools, stopDefaultPool);
        return made->get();
    }();
    return *pool;
}

PoolStatistics defaultPoolStatistics() {
    const ThreadPool* const pool = usedDefaultPool;
    return pool ? pool->statistics() : PoolStatistics();
}

void ThreadPool::start(std::function<void()> func) {
    start(std::move(func), "");
}

void ThreadPool::start(std::function<void()> func, const std::string& name) {
    startOrThrow(*_threads, {std::move(func), name}, places(), getStackSize());
}

bool ThreadPool::tryStart(std::function<void()>&& func, std::chrono::milliseconds patience) {
    return tryToStart(*_threads, std::move(func), places(), patience, getStackSize());
}

// What runs on POCO's own threads takes places as well.
std::size_t ThreadPool::places() const {
    return static_cast<std::size_t>(std::max(capacity() - Poco::ThreadPool::used(), 0));
}

std::size_t ThreadPool::pendingTasks() {
    return _threads->accepted();
}

void ThreadPool::stop() {
    stopOrLog(*_threads, name());
    if (Poco::ThreadPool::used() == 0) Poco::ThreadPool::stopAll();
}

int ThreadPool::used() const {
    return static_cast<int>(_threads->accepted()) + Poco::ThreadPool::used();
}

// POCO's idle threads, which stand by from the beginning, count as ours until ours exist.
int ThreadPool::allocated() const {
    const int both = static_cast<int>(_threads->threads()) + Poco::ThreadPool::used();
    return std::max(both, Poco::ThreadPool::allocated());
}

int ThreadPool::available() const {
    return std::max(capacity() - used(), 0);
}

PoolStatistics ThreadPool::statistics() const {
    const auto number = [](int count) { return static_cast<std::uint64_t>(count); };
    return {number(allocated()), number(used()), number(capacity())};
}

void ThreadPool::joinAll() {
    while (_threads->awaitEnd(kStopPatience) != 0) continue;
    Poco::ThreadPool::joinAll();
}

void ThreadPool::stopAll() {
    stop();
    Poco::ThreadPool::stopAll();
    _threads->reopen();
}

TaskManager::TaskManager(Poco::ThreadPool& pool) : Poco::TaskManager(pool) {}

TaskManager::TaskManager(const std::string& name, int minCapacity, int maxCapacity, int idleTime,
                         int stackSize)
    : TaskManager(std::make_unique<Poco::ThreadPool>(name, minCapacity, maxCapacity, idleTime,
                                                     stackSize)) {}

TaskManager::TaskManager(std::unique_ptr<Poco::ThreadPool> pool)
    : Poco::TaskManager(*pool), _ownPool(std::move(pool)) {}

// POCO drops a task that a thread has been given but has not taken up yet, so its threads are
// stopped only when none is busy. It offers no wait with a bound.
TaskManager::~TaskManager() {
    if (!_ownPool) return;
    const auto deadline = std::chrono::steady_clock::now() + kStopPatience;
    while (_ownPool->used() != 0 && std::chrono::steady_clock::now() < deadline) {
        Poco::Thread::sleep(1);
    }
}

}  // namespace kel
