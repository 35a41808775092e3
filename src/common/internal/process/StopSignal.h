#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace kel {

/// Ends the waits of background work at once when the library is stopped. Threads: any.
class StopSignal {
public:
    /// Wakes every sleeper, now and from now on.
    void set();

    /// @return false if the signal was set first, or before.
    bool sleepFor(std::chrono::milliseconds duration);

private:
    std::mutex _mutex;
    std::condition_variable _changed;
    bool _set = false;  // guarded by _mutex
};

}  // namespace kel
