// Messaging.cpp - what all MQTT clients of the process share.
//
//   threads         run                                             may wait
//   handlers        message handlers                                yes; 32 that do make the
//                                                                   dispatcher run the rest itself
//   background      connects, their pauses, reconnects, subscribes  yes
//   dispatcher (a   parsing, filters, handlers for which the pool   only in such a handler
//   background one  has no place
//   for good)
//
// There is one Messaging from a start to the next stop. Stopped ones are kept, since their last
// threads may still be on their way out.

#include "Messaging.h"

#include <mutex>
#include <utility>
#include <vector>

#include "../log/UnitLog.h"
#include "../process/LibraryStop.h"
#include "../process/NeverDestroyed.h"
#include "Connection.h"
#include "ReceiveThread.h"

namespace kel {

namespace {

constexpr UnitLog log("src/common/MqttClient++");

constexpr auto kPatienceWithPool = std::chrono::milliseconds(5);

struct State {
    std::mutex mutex;
    std::vector<std::unique_ptr<Messaging>> all;  // guarded by mutex
    std::atomic<Messaging*> running{nullptr};     // changed under mutex
};

State& state() {
    static NeverDestroyed<State> instance;
    return *instance;
}

}  // namespace

Messaging& Messaging::instance() {
    State& shared = state();
    if (Messaging* running = shared.running) return *running;
    const std::lock_guard<std::mutex> lock(shared.mutex);
    if (Messaging* running = shared.running) return *running;
    const bool ending = processIsEnding();
    if (!ending || shared.all.empty()) shared.all.push_back(std::make_unique<Messaging>());
    Messaging& last = *shared.all.back();
    if (ending) return last;
    shared.running = &last;
    onLibraryStop(StopStage::kMessaging, stopRunning);
    return last;
}

Messaging* Messaging::running() {
    return state().running;
}

Messaging::Messaging() {
    if (processIsEnding()) {
        stop();
        return;
    }
    _handlers = std::make_unique<TaskPool>("", 32);
    _background = std::make_unique<TaskPool>("mqttBackground", 1024);
    inBackground([this] { _dispatcher.run([this] { lookAfter(); }); });
}

bool Messaging::inBackground(std::function<void()> task) {
    if (!_background || stopped()) return false;
    startPostponed();
    if (tryInBackground(task)) return true;
    if (stopped()) return false;
    const std::lock_guard<std::mutex> lock(_postponedMutex);
    _postponed.push_back(std::move(task));
    return true;
}

bool Messaging::tryInBackground(const std::function<void()>& task) {
    try {
        _background->start([task] { logExceptions(log, task); }, "mqttBackground");
        return true;
    } catch (const std::exception&) {
        return false;  // logged by the pool
    }
}

void Messaging::startPostponed() {
    const std::lock_guard<std::mutex> lock(_postponedMutex);
    std::erase_if(_postponed, [this](const auto& task) { return tryInBackground(task); });
}

// A client must not stay away for good because the system had no thread when its session ended:
// none for the MQTT library to tell of it, or none to connect again.
void Messaging::lookAfter() {
    logExceptions(log, [this] {
        startPostponed();
        Connection::tellSilentLosses();
    });
}

void Messaging::stopRunning() {
    Messaging* last = nullptr;
    {
        const std::lock_guard<std::mutex> lock(state().mutex);
        last = state().running.exchange(nullptr);
    }
    if (!last) return;
    // A connect that succeeds too late to be silenced here finds the signal set.
    last->_stop.set();
    Connection::silenceAll();
    last->stop();
    ReceiveThread::stop();
}

// The dispatcher hands out what it has, for which it needs the handlers.
void Messaging::stop() {
    _stop.set();
    _dispatcher.stop();
    if (_background) _background->stop();
    if (_handlers) _handlers->stop();
}

bool Messaging::handle(std::function<void()>& task) {
    using std::chrono::milliseconds;
    const milliseconds patience = _exhausted ? milliseconds::zero() : kPatienceWithPool;
    const bool taken = _handlers->tryStart(std::move(task), patience);
    _exhausted = !taken;
    return taken;
}

MessagingCounters& messagingCounters() {
    static NeverDestroyed<MessagingCounters> instance;
    return *instance;
}

void Messaging::describe(MqttStatistics& numbers) const {
    numbers.queue = {_dispatcher.depth(), _dispatcher.highWater()};
    if (_handlers) numbers.handlers = _handlers->statistics();
    if (_background) numbers.background = _background->statistics();
}

MqttStatistics mqttStatistics() {
    const MessagingCounters& counters = messagingCounters();
    MqttStatistics numbers;
    for (std::size_t qos = 0; qos < numbers.received.size(); ++qos) {
        numbers.received[qos] = counters.received[qos];
        numbers.published[qos] = counters.published[qos];
    }
    numbers.confirmed = counters.confirmed;
    numbers.refused = counters.refusedPublishes;
    numbers.handledInline = counters.handledInline;
    numbers.reconnections = counters.reconnections;
    if (const Messaging* running = Messaging::running()) running->describe(numbers);
    return numbers;
}

}  // namespace kel
