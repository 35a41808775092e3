#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "../../MqttStatistics.h"
#include "../process/StopSignal.h"
#include "../tasks/TaskPool.h"
#include "Dispatcher.h"

namespace kel {

/// What all clients of the process share: the pool of the handlers, the threads that may wait for a
/// broker, the dispatcher, and their stop. Threads: any.
class Messaging {
public:
    /// The one in force. The first use starts it, and so does the first after stopLibrary(); while
    /// the process ends nothing is started, and this is one that has been stopped. Never destroyed.
    static Messaging& instance();

    /// The one in force, or null where there has been no use since the last stop.
    static Messaging* running();

    Messaging();

    /// The documented pool of 1 to 32 threads.
    TaskPool& handlers() { return *_handlers; }

    /// Hands `task` to the handlers, waiting a few milliseconds for a place: tiny handlers finish
    /// in microseconds, yet a burst of messages finds all threads taken. After a wait in vain there
    /// is none until a place has been found again. For the dispatching thread.
    /// @return false, with `task` as it was, if there is no place.
    bool handle(std::function<void()>& task);

    Dispatcher& dispatcher() { return _dispatcher; }

    /// Fills in the queue and the pools.
    void describe(MqttStatistics& numbers) const;

    /// Runs `task` on a thread that may wait as long as it likes; where the system has none at the
    /// moment, some seconds after it has one again. What it throws is logged.
    /// @return false, with the task not run, after the stop.
    bool inBackground(std::function<void()> task);

    /// @return false if the stop came first; ends every such pause at once.
    bool pause(std::chrono::milliseconds duration) { return _stop.sleepFor(duration); }
    bool stopped() { return !pause(std::chrono::milliseconds(0)); }

private:
    static void stopRunning();

    void stop();
    bool tryInBackground(const std::function<void()>& task);
    void startPostponed();
    void lookAfter();

    // Set at construction, own locking. Null while the process ends.
    std::unique_ptr<TaskPool> _handlers;
    std::unique_ptr<TaskPool> _background;
    Dispatcher _dispatcher;
    StopSignal _stop;

    bool _exhausted = false;  // the dispatching thread's

    std::mutex _postponedMutex;
    std::vector<std::function<void()>> _postponed;  // guarded by it; for want of a thread
};

/// Figures since the start of the process; of all clients together.
struct MessagingCounters {
    using Count = std::atomic<std::uint64_t>;

    std::array<Count, 3> received{};   // by QoS
    std::array<Count, 3> published{};  // accepted by the library, by QoS
    Count confirmed{0};                // deliveries at QoS 1 and 2
    Count refusedPublishes{0};
    Count handledInline{0};  // because the pool was full
    Count reconnections{0};  // sessions that followed a lost one
};

MessagingCounters& messagingCounters();

/// A snapshot of those figures, of the queue and of the pools.
MqttStatistics mqttStatistics();

}  // namespace kel
