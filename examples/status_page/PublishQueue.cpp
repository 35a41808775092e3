#include "PublishQueue.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <common/Logger.h>

#include <utility>

namespace status_page {

PublishQueue::PublishQueue(std::function<bool(const Message&)> publish)
    : _publish(std::move(publish)) {
    _thread = std::thread([this] { run(); });
}

PublishQueue::~PublishQueue() {
    stop();
    _thread.join();
}

bool PublishQueue::offer(Message message) {
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (!hasPlace()) {
            ++_refused;
            return false;
        }
        _waiting.push_back(std::move(message));
    }
    _changed.notify_one();
    return true;
}

bool PublishQueue::hasPlace() const {
    const bool stuck = _publishing && Clock::now() - _begun > kPatience;
    return !_stopped && !stuck && _waiting.size() < kPlaces;
}

void PublishQueue::stop() {
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _stopped = true;
        _waiting.clear();
    }
    _changed.notify_one();
}

std::size_t PublishQueue::depth() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _waiting.size();
}

unsigned PublishQueue::refused() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _refused;
}

void PublishQueue::run() {
    std::unique_lock<std::mutex> lock(_mutex);
    while (true) {
        _changed.wait(lock, [this] { return _stopped || !_waiting.empty(); });
        if (_stopped) return;
        const Message message = std::move(_waiting.front());
        _waiting.pop_front();
        _publishing = true;
        _begun = Clock::now();
        lock.unlock();
        try {
            _publish(message);
        } catch (const std::exception& exc) {
            poco_error(Poco::Logger::get(kel::logName()),
                       std::string("a message from the status page was lost: ") + exc.what());
        }
        lock.lock();
        _publishing = false;
    }
}

}  // namespace status_page
