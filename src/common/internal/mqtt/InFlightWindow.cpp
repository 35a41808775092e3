#include "InFlightWindow.h"

#include <algorithm>
#include <utility>

namespace kel {

namespace {

constexpr int kMostAtQos0 = 2;
constexpr auto kPacePatience = std::chrono::milliseconds(10);
constexpr auto kAskAgain = std::chrono::milliseconds(100);
constexpr auto kHalfPatience = std::chrono::microseconds(200);

}  // namespace

void InFlightWindow::forget() {
    abandon();
    const std::lock_guard<std::mutex> lock(_mutex);
    _sent = 0;
}

void InFlightWindow::open() {
    const std::lock_guard<std::mutex> lock(_mutex);
    ++_session;
    _open = true;
    _taken = 0;
    _changed.notify_all();
}

void InFlightWindow::close() {
    const std::lock_guard<std::mutex> lock(_mutex);
    _open = false;
    _changed.notify_all();
    acknowledged();
}

void InFlightWindow::abandon() {
    const std::lock_guard<std::mutex> lock(_mutex);
    for (Sent& message : _messages) {
        if (message.receipt) message.receipt->settle(Receipt::Fate::kSessionLost);
        message.receipt.reset();
    }
}

std::optional<InFlightWindow::Session> InFlightWindow::take(const GiveUp& giveUp) {
    std::unique_lock<std::mutex> lock(_mutex);
    const Session session = _session;
    const auto ended = [&] { return !_open || _session != session; };
    const auto settled = [&] { return ended() || used() < kPlaces; };
    if (!settled()) awaitHalf(lock);
    if (giveUp) {
        while (!_changed.wait_for(lock, kAskAgain, settled)) {
            if (giveUp()) return {};
        }
    } else {
        _changed.wait(lock, settled);
    }
    if (ended()) return {};
    ++_taken;
    return session;
}

// Woken at each acknowledgement, publisher and receive thread would meet at each message.
void InFlightWindow::awaitHalf(std::unique_lock<std::mutex>& lock) {
    ++_awaitingHalf;
    _halfFree.wait_for(lock, kHalfPatience, [this] { return used() <= kPlaces / 2; });
    --_awaitingHalf;
}

void InFlightWindow::sent(Session session, int token, std::shared_ptr<Receipt> receipt) {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (session == _session && _taken > 0) --_taken;
    if (_sent < static_cast<int>(_messages.size()))
        _messages[static_cast<std::size_t>(_sent++)] = {token, std::move(receipt)};
}

void InFlightWindow::giveBack(Session session) {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (session != _session || _taken == 0) return;
    --_taken;
    _changed.notify_one();
}

bool InFlightWindow::delivered(int token) {
    bool halfFree = false;
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        const auto end = _messages.begin() + _sent;
        const auto found = std::find_if(_messages.begin(), end,
                                        [token](const Sent& sent) { return sent.token == token; });
        if (found == end) return false;
        if (found->receipt) found->receipt->settle(Receipt::Fate::kConfirmed);
        std::swap(*found, *(end - 1));
        (end - 1)->receipt.reset();
        --_sent;
        acknowledged();
        halfFree = _awaitingHalf > 0 && used() <= kPlaces / 2;
    }
    // Without the lock, for which a publisher that wakes up would wait at once.
    if (halfFree) _halfFree.notify_one();
    _changed.notify_one();
    return true;
}

void InFlightWindow::acknowledged() {
    _atQos0 = 0;
    if (_paced > 0) _paceChanged.notify_all();
}

bool InFlightWindow::pace() {
    std::unique_lock<std::mutex> lock(_mutex);
    const auto mayGo = [this] { return _sent == 0 || _atQos0 < kMostAtQos0 || !_open; };
    ++_paced;
    if (!mayGo()) _paceChanged.wait_for(lock, kPacePatience, mayGo);
    --_paced;
    ++_atQos0;
    return _sent == 0;
}

bool InFlightWindow::isOpen() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _open;
}

}  // namespace kel
