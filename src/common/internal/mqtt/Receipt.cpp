#include "Receipt.h"

#include <algorithm>

namespace kel {

namespace {

constexpr auto kAskAgain = std::chrono::milliseconds(100);

}  // namespace

void Receipt::settle(Fate fate) {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (_fate != Fate::kOpen) return;
    _fate = fate;
    _settled.notify_all();
}

Receipt::Fate Receipt::await(Clock::time_point deadline, const std::function<bool()>& giveUp) {
    const auto known = [this] { return _fate != Fate::kOpen; };
    std::unique_lock<std::mutex> lock(_mutex);
    while (!known() && Clock::now() < deadline && !(giveUp && giveUp())) {
        const auto next = giveUp ? std::min(deadline, Clock::now() + kAskAgain) : deadline;
        _settled.wait_until(lock, next, known);
    }
    return _fate;
}

}  // namespace kel
