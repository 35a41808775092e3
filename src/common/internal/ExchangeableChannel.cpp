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

void ExchangeableChannel::resume(Poco::AutoPtr<Poco::Channel> next) {
    const std::lock_guard<std::mutex> lock(_mutex);
    _target = std::move(next);
    for (const Poco::Message& message : _held) _target->log(message);
    _held.clear();
    _holding = false;
}

}  // namespace kel
