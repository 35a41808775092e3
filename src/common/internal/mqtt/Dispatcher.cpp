// Dispatcher.cpp - the way of arrived messages to the pool.
//
//   state      touched by                                under
//   the queue  the receive thread, run()'s, statistics   _mutex, never while an item is handed out
//   an item    first who brings it, then run()'s thread  nothing: one after the other

#include "Dispatcher.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace kel {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kBetweenLooks = std::chrono::seconds(2);

thread_local Dispatcher* runningHere = nullptr;

}  // namespace

Dispatcher::WaitsForBroker::WaitsForBroker() : _dispatcher(runningHere) {
    if (!_dispatcher) return;
    _giveUp = [this] {
        const std::lock_guard<std::mutex> lock(_dispatcher->_mutex);
        return !_dispatcher->hasRoom(2);
    };
    const std::lock_guard<std::mutex> lock(_dispatcher->_mutex);
    _dispatcher->_waitsForBroker = true;
    _dispatcher->_drained.notify_all();
}

Dispatcher::WaitsForBroker::~WaitsForBroker() {
    if (!_dispatcher) return;
    const std::lock_guard<std::mutex> lock(_dispatcher->_mutex);
    _dispatcher->_waitsForBroker = false;
}

bool Dispatcher::hasRoom(std::size_t times) const {
    return _queue.size() < times * kMostMessages && _bytes < times * kMostBytes;
}

bool Dispatcher::mayGrow() const {
    return _stopped || hasRoom(_waitsForBroker ? 2 : 1);
}

void Dispatcher::append(std::shared_ptr<Item> item) {
    _bytes += item->bytes();
    _queue.push_back(std::move(item));
    _highWater = std::max(_highWater, _queue.size());
    _bytesHighWater = std::max(_bytesHighWater, _bytes);
    if (!_busy) _filled.notify_one();
}

void Dispatcher::take(std::shared_ptr<Item> item) {
    std::unique_lock<std::mutex> lock(_mutex);
    const bool nothingBefore = _queue.empty() && !_busy;
    if (nothingBefore && item->bytes() <= kLargestAtOnce) {
        lock.unlock();
        if (item->tryHandOut()) return;
        lock.lock();
    }
    _drained.wait(lock, [this] { return mayGrow(); });
    append(std::move(item));
}

void Dispatcher::push(std::shared_ptr<Item> item) {
    const std::lock_guard<std::mutex> lock(_mutex);
    append(std::move(item));
}

std::shared_ptr<Dispatcher::Item> Dispatcher::next() {
    std::unique_lock<std::mutex> lock(_mutex);
    _busy = false;
    _filled.wait_for(lock, kBetweenLooks, [this] { return _stopped || !_queue.empty(); });
    if (_queue.empty()) return {};
    _busy = true;
    std::shared_ptr<Item> item = std::move(_queue.front());
    _queue.pop_front();
    _bytes -= item->bytes();
    _drained.notify_one();
    return item;
}

bool Dispatcher::over() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _stopped && _queue.empty();
}

void Dispatcher::run(const std::function<void()>& lookAfter) {
    runningHere = this;
    for (auto looked = Clock::now(); !over();) {
        if (const std::shared_ptr<Item> item = next()) item->handOut();
        if (Clock::now() < looked + kBetweenLooks) continue;
        lookAfter();
        looked = Clock::now();
    }
    runningHere = nullptr;
}

void Dispatcher::stop() {
    const std::lock_guard<std::mutex> lock(_mutex);
    _stopped = true;
    _filled.notify_all();
    _drained.notify_all();
}

std::size_t Dispatcher::depth() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _queue.size();
}

std::size_t Dispatcher::highWater() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _highWater;
}

std::size_t Dispatcher::bytesHighWater() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _bytesHighWater;
}

bool Dispatcher::isFull() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return !hasRoom(1);
}

}  // namespace kel
