#include "WorkInProgress.h"

namespace kel {

WorkInProgress::Item::Item(WorkInProgress& work) : _work(work) {
    const std::lock_guard<std::mutex> lock(_work._mutex);
    ++_work._count;
}

// Notifies under the lock: once it is released the counter may be destroyed.
WorkInProgress::Item::~Item() {
    const std::lock_guard<std::mutex> lock(_work._mutex);
    if (--_work._count == 0) _work._ended.notify_all();
}

std::size_t WorkInProgress::count() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _count;
}

bool WorkInProgress::awaitNone(std::chrono::milliseconds patience) const {
    std::unique_lock<std::mutex> lock(_mutex);
    return _ended.wait_for(lock, patience, [this] { return _count == 0; });
}

}  // namespace kel
