// Keepalive.cpp - periodic reports of which only so many are under way.
//
// The timers run on a pool of their own, since a host may hold every thread of POCO's default pool.

#include "Keepalive.h"

#include <Poco/ThreadPool.h>

#include <algorithm>
#include <utility>

#include "../process/NeverDestroyed.h"

namespace kel {

namespace {

constexpr int kMaxTimers = 1 << 20;  // no limit: a process has fewer threads

Poco::ThreadPool& timerPool() {
    static NeverDestroyed<Poco::ThreadPool> instance("hook", 1, kMaxTimers);
    return *instance;
}

}  // namespace

Keepalive::Keepalive(long period, Report report) : _report(std::move(report)), _timer(0, period) {
    _timer.start(Poco::TimerCallback<Keepalive>(*this, &Keepalive::onTimer), timerPool());
}

Keepalive::~Keepalive() {
    _timer.stop();
}

void Keepalive::joinThreads() {
    timerPool().stopAll();
}

void Keepalive::onTimer(Poco::Timer&) {
    const auto place = std::find_if(_underWay.begin(), _underWay.end(),
                                    [](const auto& earlier) { return earlier.expired(); });
    if (place == _underWay.end()) return;
    const Ticket ticket = std::make_shared<char>();
    *place = ticket;
    _report(ticket);
}

}  // namespace kel
