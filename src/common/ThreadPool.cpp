// ThreadPool.cpp - callables on POCO's threads.
//
// POCO only borrows the Runnable it runs, so each task lives in an adapter. The list of tasks holds
// one reference from start() to the task's end; run() holds another, so that a task which outlasts
// the pool's stop still owns itself. Adapters know the list and not the pool: whoever releases the
// pool destroys it, never one of its own threads.

#include "ThreadPool.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/RefCountedObject.h>
#include <Poco/Runnable.h>

#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>

#include "internal/log/UnitLog.h"
#include "internal/process/LibraryStop.h"

namespace kel {

namespace {

constexpr UnitLog log("src/common/ThreadPool");

// Line numbers that operators filter on.
constexpr int kRefusedLine = 36;
constexpr int kPocoExceptionLine = 49;
constexpr int kStdExceptionLine = 52;

constexpr std::chrono::seconds kStopPatience(10);

}  // namespace

struct ThreadPool::Tasks {
    void taskFinished(RunnableAdapter* adapter);

    std::mutex mutex;
    std::condition_variable changed;
    // Guarded by mutex.
    std::list<Poco::AutoPtr<RunnableAdapter>> adapters;
    bool stopped = false;
};

class ThreadPool::RunnableAdapter : public Poco::Runnable, public Poco::RefCountedObject {
public:
    RunnableAdapter(std::function<void()> func, std::shared_ptr<Tasks> tasks)
        : _func(std::move(func)), _tasks(std::move(tasks)) {}

    void run() override {
        const Poco::AutoPtr<RunnableAdapter> self(this, true);
        struct Report {
            RunnableAdapter& adapter;
            ~Report() { adapter.finish(); }
        } report{*this};
        callFunc();
    }

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
        _func = nullptr;  // what the task captured goes before the task counts as ended
        _tasks->taskFinished(this);
    }

    std::function<void()> _func;
    const std::shared_ptr<Tasks> _tasks;
};

void ThreadPool::Tasks::taskFinished(RunnableAdapter* adapter) {
    const std::lock_guard<std::mutex> lock(mutex);
    adapters.remove_if([&](const auto& held) { return held.get() == adapter; });
    changed.notify_all();
}

ThreadPool::ThreadPool(int minCapacity, int maxCapacity, int idleTime, int stackSize)
    : Poco::ThreadPool(minCapacity, maxCapacity, idleTime, stackSize),
      _tasks(std::make_shared<Tasks>()) {}

ThreadPool::ThreadPool(const std::string& name, int minCapacity, int maxCapacity, int idleTime,
                       int stackSize)
    : Poco::ThreadPool(name, minCapacity, maxCapacity, idleTime, stackSize),
      _tasks(std::make_shared<Tasks>()) {}

ThreadPool::~ThreadPool() {
    stop();
}

ThreadPool& ThreadPool::defaultPool() {
    static const auto& pool = *new std::shared_ptr<ThreadPool>([] {
        onLibraryStop(StopStage::kTaskPools, [] { defaultPool().stop(); });
        return new ThreadPool("default", 1, 32, 60, 0);
    }());
    return *pool;
}

void ThreadPool::start(std::function<void()> func) {
    start(std::move(func), "");
}

void ThreadPool::start(std::function<void()> func, const std::string& name) {
    try {
        Poco::AutoPtr<RunnableAdapter> adapter(new RunnableAdapter(std::move(func), _tasks));
        // Held from start to record: a short task reports back only after it has been recorded,
        // and a thread that POCO hands out is not released by stop() meanwhile.
        const std::lock_guard<std::mutex> lock(_tasks->mutex);
        if (_tasks->stopped) throw Poco::IllegalStateException("thread pool is stopped");
        Poco::ThreadPool::start(*adapter, name);
        _tasks->adapters.push_back(adapter);
    } catch (const std::exception& exc) {
        log.error(Poco::format("exception: %s", std::string(exc.what())), kRefusedLine);
        throw;
    }
}

std::size_t ThreadPool::pendingTasks() {
    const std::lock_guard<std::mutex> lock(_tasks->mutex);
    return _tasks->adapters.size();
}

// POCO would drop a task that a thread has been given but has not taken up yet, and wait 10 s for
// each thread in turn; so it stops the threads only after their tasks.
void ThreadPool::stop() {
    std::unique_lock<std::mutex> lock(_tasks->mutex);
    _tasks->stopped = true;
    _tasks->changed.wait_for(lock, kStopPatience, [&] { return _tasks->adapters.empty(); });
    const std::size_t left = _tasks->adapters.size();
    lock.unlock();
    if (left == 0) {
        stopAll();
    } else {
        log.error(Poco::format("thread pool %s stops with %z tasks running", name(), left));
    }
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
