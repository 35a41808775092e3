#include "ExchangeableChannel.h"

namespace kel {

void ExchangeableChannel::log(const Poco::Message& message) {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (_holding) {
        _held.push_back(message);
    } else if (_target) {
        _target->log(message);
    }
}

void ExchangeableChannel::hold() {
    const std::lock_guard<std::mutex> lock(_mutex);
    _holding = true;
}

void ExchangeableChannel::resume(Poco::AutoPtr<Poco::Channel> next) noexcept {
    const std::lock_guard<std::mutex> lock(_mutex);
    _target = std::move(next);
    for (; !_held.empty(); _held.pop_front()) {
        try {
            _target->log(_held.front());
        } catch (...) {
            // The later ones may still get through.
        }
    }
    _holding = false;
}

}  // namespace kel
