#include "TaskPool.h"

#include <Poco/ErrorHandler.h>
#include <Poco/Exception.h>
#include <Poco/Format.h>

#include <utility>

#include "../log/UnitLog.h"

namespace kel {

namespace {

using namespace std::chrono_literals;

constexpr UnitLog log("src/common/ThreadPool");

// Line numbers that operators filter on.
constexpr int kRefusedLine = 36;
constexpr int kPocoExceptionLine = 49;
constexpr int kStdExceptionLine = 52;

constexpr std::chrono::milliseconds kStopPatience = 10s;

void runLogged(const std::function<void()>& func) {
    try {
        if (func) func();
    } catch (const Poco::Exception& exc) {
        log.error(exc, kPocoExceptionLine);
    } catch (const std::exception& exc) {
        log.error(exc, kStdExceptionLine);
    } catch (...) {
        Poco::ErrorHandler::handle();  // as on a thread of POCO's
    }
}

}  // namespace

std::shared_ptr<TaskThreads> makeLoggingThreads(const std::string& name, std::size_t kept,
                                                std::chrono::seconds idleTime, bool (*mayBegin)()) {
    return std::make_shared<TaskThreads>(
        TaskThreads::Settings{name, kept, idleTime, runLogged, mayBegin});
}

void startOrThrow(TaskThreads& threads, TaskThreads::Task task, std::size_t capacity,
                  int stackSize) {
    try {
        switch (threads.accept(task, capacity, 0ms, stackSize)) {
            case TaskThreads::Answer::kAccepted:
                return;
            case TaskThreads::Answer::kFull:
                throw Poco::NoThreadAvailableException();
            case TaskThreads::Answer::kStopped:
                throw Poco::IllegalStateException("thread pool is stopped");
        }
    } catch (const std::exception& exc) {
        log.error(Poco::format("exception: %s", std::string(exc.what())), kRefusedLine);
        throw;
    }
}

bool tryToStart(TaskThreads& threads, std::function<void()>&& func, std::size_t capacity,
                std::chrono::milliseconds patience, int stackSize) {
    TaskThreads::Task task{std::move(func), ""};
    try {
        const auto answer = threads.accept(task, capacity, patience, stackSize);
        if (answer == TaskThreads::Answer::kAccepted) return true;
    } catch (...) {
        func = std::move(task.func);
        throw;
    }
    func = std::move(task.func);
    return false;
}

void stopOrLog(TaskThreads& threads, const std::string& name) {
    const std::size_t left = threads.stop(kStopPatience);
    if (left == 0) return;
    log.error(Poco::format("thread pool %s stops with %z tasks running", name, left));
}

TaskPool::TaskPool(const std::string& name, std::size_t capacity)
    : _name(name),
      _capacity(capacity),
      _threads(makeLoggingThreads(name, 1, 60s, [] { return true; })) {}

void TaskPool::start(std::function<void()> func, const std::string& name) {
    startOrThrow(*_threads, {std::move(func), name}, _capacity, 0);
}

bool TaskPool::tryStart(std::function<void()>&& func, std::chrono::milliseconds patience) {
    return tryToStart(*_threads, std::move(func), _capacity, patience, 0);
}

void TaskPool::stop() {
    stopOrLog(*_threads, _name);
}

PoolStatistics TaskPool::statistics() const {
    return {_threads->threads(), _threads->accepted(), _capacity};
}

}  // namespace kel
