// TaskThreads.cpp - who runs a task, and when a thread is woken for it.
//
//   state                      who may touch it            lock
//   queue, counts, lists       any thread                  _mutex
//   Worker::called             any thread                  _mutex of its TaskThreads
//   Worker::thread             its starter, then whoever   none: a worker has one joiner
//                              takes it out of _left
//
// No task runs, and no thread is joined, with _mutex held. Once it has started, a worker needs no
// memory of its own: one that failed could neither take a task nor leave.

#include "TaskThreads.h"

#include <Poco/Runnable.h>
#include <Poco/Thread.h>
#include <Poco/ThreadLocal.h>

#include <algorithm>
#include <thread>

namespace kel {

namespace {

constexpr int kLooks = 4;

thread_local const TaskThreads* runsATaskOf = nullptr;

// Names the calling thread after its task for as long as it runs. Where there is no memory for a
// name, the thread keeps the one that it has.
class NameForTask {
public:
    NameForTask(Poco::Thread& thread, const std::string& own, const std::string& task)
        : _thread(thread), _own(own), _named(!task.empty()) {
        if (_named) trySet([&] { return task + " (" + own + ")"; });
    }
    ~NameForTask() {
        if (_named) trySet([&] { return _own; });
    }
    NameForTask(const NameForTask&) = delete;
    NameForTask& operator=(const NameForTask&) = delete;

private:
    template <typename Name>
    void trySet(const Name& name) noexcept {
        try {
            _thread.setName(name());
        } catch (...) {
            // The name only helps whoever looks on.
        }
    }

    Poco::Thread& _thread;
    const std::string& _own;
    const bool _named;
};

}  // namespace

// Owns itself and its TaskThreads from start() to the end of run().
class TaskThreads::Worker : public Poco::Runnable {
public:
    explicit Worker(const std::string& threadName) : name(threadName), thread(threadName) {}

    void run() override {
        const WorkerPtr self = std::move(selfUntilRun);
        const std::shared_ptr<TaskThreads> threads = std::move(threadsUntilRun);
        threads->work(self);
    }

    const std::string name;
    Poco::Thread thread;
    WorkerPtr selfUntilRun;
    std::shared_ptr<TaskThreads> threadsUntilRun;
    std::condition_variable wake;
    bool called = false;
};

TaskThreads::TaskThreads(Settings settings) : _settings(std::move(settings)) {}

TaskThreads::~TaskThreads() = default;

TaskThreads::Answer TaskThreads::accept(Task& task, std::size_t capacity,
                                        std::chrono::milliseconds patience, int stackSize) {
    WorkerPtr called;
    std::list<WorkerPtr> left;
    {
        Lock lock(_mutex);
        if (!awaitPlace(lock, capacity, patience)) return Answer::kFull;
        if (!_begun) _begun = _settings.mayBegin();
        if (_closed || !_begun) return Answer::kStopped;
        _queue.push_back(std::move(task));
        ++_accepted;
        try {
            if (_queue.size() > _coming) called = call(stackSize);
        } catch (...) {
            task = std::move(_queue.back());
            _queue.pop_back();
            --_accepted;
            throw;
        }
        left.swap(_left);
    }
    if (called) called->wake.notify_one();
    for (const WorkerPtr& worker : left) worker->thread.join();
    return Answer::kAccepted;
}

bool TaskThreads::awaitPlace(Lock& lock, std::size_t capacity, std::chrono::milliseconds patience) {
    const auto hasPlace = [&] { return _closed || _accepted < capacity; };
    if (hasPlace()) return true;
    if (patience.count() <= 0) return false;
    ++_waitingForPlace;
    const bool free = _placeFree.wait_for(lock, patience, hasPlace);
    --_waitingForPlace;
    return free;
}

// Returns the worker to wake, if it sleeps. Each task has a thread of its own or a worker coming
// for it, so that there are never more threads than tasks when one is started.
TaskThreads::WorkerPtr TaskThreads::call(int stackSize) {
    if (_idle.empty()) {
        startWorker(stackSize);
        return nullptr;
    }
    WorkerPtr worker = std::move(_idle.back());
    _idle.pop_back();
    worker->called = true;
    ++_coming;
    return worker;
}

void TaskThreads::startWorker(int stackSize) {
    const auto worker =
        std::make_shared<Worker>(_settings.name + "[#" + std::to_string(_started + 1) + "]");
    worker->thread.setStackSize(stackSize);
    _idle.reserve(_workers.size() + 1);
    _workers.push_back(worker);
    worker->selfUntilRun = worker;
    worker->threadsUntilRun = shared_from_this();
    try {
        worker->thread.start(*worker);
    } catch (...) {
        _workers.pop_back();
        worker->selfUntilRun = nullptr;
        worker->threadsUntilRun = nullptr;
        throw;
    }
    ++_started;
    ++_coming;
}

void TaskThreads::work(const WorkerPtr& worker) {
    Lock lock(_mutex);
    do {
        --_coming;
        runQueue(lock, *worker);
    } while (awaitCall(lock, worker));
    leave(worker);
}

void TaskThreads::runQueue(Lock& lock, Worker& worker) {
    while (!_queue.empty()) {
        Task task = std::move(_queue.front());
        _queue.pop_front();
        lock.unlock();
        {
            const NameForTask name(worker.thread, worker.name, task.name);
            runsATaskOf = this;
            _settings.run(task.func);
            task.func = nullptr;  // what it captured is destroyed before it counts as ended
            runsATaskOf = nullptr;
            Poco::ThreadLocalStorage::clear();
        }
        lock.lock();
        --_accepted;
        if (_waitingForPlace != 0) _placeFree.notify_one();
        if (_waitingForChange != 0) _changed.notify_all();
    }
}

// To put a thread to sleep and wake it costs more than many a task does, so a worker looks at the
// queue again before it sleeps; it counts as coming meanwhile. One at a time is enough.
bool TaskThreads::looksOnceMore(Lock& lock) {
    for (int look = 0; look < kLooks && _coming == 0 && !_closed; ++look) {
        ++_coming;
        lock.unlock();
        std::this_thread::yield();
        lock.lock();
        if (!_queue.empty()) return true;
        --_coming;
    }
    return false;
}

// @return false if the worker is to leave.
bool TaskThreads::awaitCall(Lock& lock, const WorkerPtr& worker) {
    if (looksOnceMore(lock)) return true;
    worker->called = false;
    _idle.push_back(worker);
    while (!worker->called && !_closed) {
        const bool idledOut =
            worker->wake.wait_for(lock, _settings.idleTime) == std::cv_status::timeout &&
            _workers.size() > _settings.kept;
        if (idledOut && !worker->called) break;
    }
    if (worker->called) return true;
    std::erase(_idle, worker);
    return false;
}

void TaskThreads::leave(const WorkerPtr& worker) {
    const auto place = std::find(_workers.begin(), _workers.end(), worker);
    if (_leftAlone) {
        _workers.erase(place);
    } else {
        _left.splice(_left.end(), _workers, place);
    }
    if (_waitingForChange != 0) _changed.notify_all();
}

std::size_t TaskThreads::accepted() const {
    const Lock lock(_mutex);
    return _accepted;
}

std::size_t TaskThreads::threads() const {
    const Lock lock(_mutex);
    return _workers.size();
}

std::size_t TaskThreads::othersAccepted() const {
    return _accepted - (runsATaskOf == this ? 1 : 0);
}

std::size_t TaskThreads::awaitEnd(std::chrono::milliseconds patience) {
    Lock lock(_mutex);
    ++_waitingForChange;
    _changed.wait_for(lock, patience, [this] { return othersAccepted() == 0; });
    --_waitingForChange;
    return othersAccepted();
}

std::size_t TaskThreads::stop(std::chrono::milliseconds patience) {
    {
        const Lock lock(_mutex);
        _closed = true;
        _placeFree.notify_all();
    }
    const std::size_t remaining = awaitEnd(patience);
    std::list<WorkerPtr> left;
    {
        Lock lock(_mutex);
        for (const WorkerPtr& worker : _idle) worker->wake.notify_one();
        ++_waitingForChange;
        _changed.wait(lock, [this] { return _workers.size() <= _accepted; });
        --_waitingForChange;
        _leftAlone = true;
        left.swap(_left);
    }
    for (const WorkerPtr& worker : left) worker->thread.join();
    return remaining;
}

void TaskThreads::reopen() {
    const Lock lock(_mutex);
    _begun = false;
    _closed = false;
    _leftAlone = false;
}

}  // namespace kel
