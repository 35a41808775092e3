#include "InFlightWindow.h"

namespace kel {

void InFlightWindow::open() {
    const std::lock_guard<std::mutex> lock(_mutex);
    ++_session;
    _open = true;
    _taken = 0;
}

void InFlightWindow::close() {
    const std::lock_guard<std::mutex> lock(_mutex);
    _open = false;
    _changed.notify_all();
}

std::optional<InFlightWindow::Session> InFlightWindow::take() {
    std::unique_lock<std::mutex> lock(_mutex);
    const Session session = _session;
    const auto ended = [&] { return !_open || _session != session; };
    _changed.wait(lock, [&] { return ended() || _taken < kPlaces; });
    if (ended()) return {};
    ++_taken;
    return session;
}

void InFlightWindow::giveBack(Session session) {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (session == _session) release();
}

void InFlightWindow::delivered() {
    const std::lock_guard<std::mutex> lock(_mutex);
    release();
}

// A broker may acknowledge what was never sent.
void InFlightWindow::release() {
    if (_taken == 0) return;
    --_taken;
    _changed.notify_one();
}

}  // namespace kel
