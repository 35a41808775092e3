// ThreadPool.cpp - callables on POCO's threads.
//
// POCO only borrows the Runnable it runs, so each task lives in an adapter. The pool's list holds
// one reference from start() to the task's end; run() holds another, so that a task which outlasts
// the pool's stop still owns itself.

#include "ThreadPool.h"

#include <Poco/Event.h>
#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/RefCountedObject.h>
#include <Poco/Runnable.h>

#include <algorithm>
#include <atomic>
#include <mutex>

#include "internal/ExitHooks.h"
#include "internal/Log.h"

namespace kel {

namespace {

constexpr UnitLog log("src/common/ThreadPool");

// Line numbers that operators filter on.
constexpr int kRefusedLine = 36;
constexpr int kPocoExceptionLine = 49;
constexpr int kStdExceptionLine = 52;

}  // namespace

class ThreadPool::RunnableAdapter : public Poco::Runnable, public Poco::RefCountedObject {
public:
    RunnableAdapter(std::function<void()> func, std::weak_ptr<ThreadPool> pool)
        : _func(std::move(func)), _pool(std::move(pool)) {}

    void run() override {
        const Poco::AutoPtr<RunnableAdapter> self(this, true);
        _begun.set();
        struct Report {
            RunnableAdapter& adapter;
            ~Report() { adapter.finish(); }
        } report{*this};
        callFunc();
    }

    void waitUntilBegun() { _begun.wait(); }

    bool finished() const { return _finished; }

private:
    void callFunc() {
        try {
            if (_func) _func();
        } catch (const Poco::Exception& exc) {
            log.error(exc.displayText(), kPocoExceptionLine);
        } catch (const std::exception& exc) {
            log.error(std::string(exc.what()), kStdExceptionLine);
        }
    }

    void finish() {
        _func = nullptr;  // what the task captured goes now, not with the list entry
        _finished = true;
        if (const std::shared_ptr<ThreadPool> pool = _pool.lock()) pool->taskFinished(this);
    }

    std::function<void()> _func;
    std::weak_ptr<ThreadPool> _pool;
    // Not std::atomic's wait(), which can miss its notification with GCC 12 on Windows.
    Poco::Event _begun{Poco::Event::EVENT_MANUALRESET};
    std::atomic<bool> _finished{false};
};

ThreadPool::ThreadPool(int minCapacity, int maxCapacity, int idleTime, int stackSize)
    : Poco::ThreadPool(minCapacity, maxCapacity, idleTime, stackSize) {}

ThreadPool::ThreadPool(const std::string& name, int minCapacity, int maxCapacity, int idleTime,
                       int stackSize)
    : Poco::ThreadPool(name, minCapacity, maxCapacity, idleTime, stackSize) {}

ThreadPool::~ThreadPool() {
    stop();
}

ThreadPool& ThreadPool::defaultPool() {
    struct Holder {
        std::shared_ptr<ThreadPool> pool;
        Poco::FastMutex mutex;
    };
    static auto* holder = new Holder;
    const Poco::FastMutex::ScopedLock lock(holder->mutex);
    if (!holder->pool) {
        holder->pool = std::shared_ptr<ThreadPool>(new ThreadPool("default", 1, 32, 60, 0));
        onLibraryStop(ExitStage::kTaskPools, [] { defaultPool().stop(); });
    }
    return *holder->pool;
}

void ThreadPool::start(std::function<void()> func) {
    start(std::move(func), "");
}

void ThreadPool::start(std::function<void()> func, const std::string& name) {
    try {
        Poco::AutoPtr<RunnableAdapter> adapter(
            new RunnableAdapter(std::move(func), weak_from_this()));
        // Held from start to record: a short task reports back only after it has been recorded,
        // and a thread that POCO hands out is not released by stop() meanwhile.
        const Poco::FastMutex::ScopedLock lock(_mutex);
        if (_stopped) throw Poco::IllegalStateException("thread pool is stopped");
        Poco::ThreadPool::start(*adapter, name);
        // Only a pool without a shared owner has finished tasks here: they could not report back.
        _adapters.remove_if([](const auto& earlier) { return earlier->finished(); });
        _adapters.push_back(adapter);
    } catch (const std::exception& exc) {
        log.error(Poco::format("exception: %s", std::string(exc.what())), kRefusedLine);
        throw;
    }
}

std::size_t ThreadPool::pendingTasks() {
    const Poco::FastMutex::ScopedLock lock(_mutex);
    return static_cast<std::size_t>(
        std::count_if(_adapters.begin(), _adapters.end(),
                      [](const auto& adapter) { return !adapter->finished(); }));
}

void ThreadPool::stop() {
    std::list<Poco::AutoPtr<RunnableAdapter>> accepted;
    {
        const Poco::FastMutex::ScopedLock lock(_mutex);
        _stopped = true;
        accepted = _adapters;
    }
    // POCO drops a task that a thread has been given but has not taken up yet.
    for (auto& adapter : accepted) adapter->waitUntilBegun();
    accepted.clear();
    stopAll();
    const Poco::FastMutex::ScopedLock lock(_mutex);
    _adapters.clear();
}

void ThreadPool::taskFinished(RunnableAdapter* adapter) {
    const Poco::FastMutex::ScopedLock lock(_mutex);
    const auto it = std::find_if(_adapters.begin(), _adapters.end(),
                                 [&](const auto& held) { return held.get() == adapter; });
    if (it != _adapters.end()) _adapters.erase(it);
}

TaskManager::TaskManager(Poco::ThreadPool& pool) : Poco::TaskManager(pool) {}

TaskManager::TaskManager(const std::string& name, int minCapacity, int maxCapacity, int idleTime,
                         int stackSize)
    : detail::OwnPool{std::make_unique<Poco::ThreadPool>(name, minCapacity, maxCapacity, idleTime,
                                                         stackSize)},
      Poco::TaskManager(*pool) {}

TaskManager::~TaskManager() {
    if (pool) pool->stopAll();
}

}  // namespace kel
