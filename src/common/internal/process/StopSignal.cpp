#include "StopSignal.h"

namespace kel {

void StopSignal::set() {
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _set = true;
    }
    _changed.notify_all();
}

bool StopSignal::sleepFor(std::chrono::milliseconds duration) {
    std::unique_lock<std::mutex> lock(_mutex);
    return !_changed.wait_for(lock, duration, [this] { return _set; });
}

}  // namespace kel
