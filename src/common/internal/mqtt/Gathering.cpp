#include "Gathering.h"

#include <algorithm>

#include "../log/UnitLog.h"

namespace kel {

namespace {

constexpr UnitLog log("src/common/MqttClient++");

constexpr int kFlood = 20;

}  // namespace

void Gathering::begin(std::uint16_t port, const std::vector<platform::TcpConnection>& others) {
    std::vector<platform::TcpConnection> made;
    logExceptions(log, [&] { made = platform::tcpConnectionsTo(port); });
    std::erase_if(made, [&](const auto& connection) {
        return std::find(others.begin(), others.end(), connection) != others.end();
    });
    for (const auto& connection : made) platform::sendAtOnce(connection, true);
    if (made.size() > 1) made.clear();
    const std::lock_guard<std::mutex> lock(_mutex);
    _connection.swap(made);
    _on = false;
}

void Gathering::countAtQos0() {
    const std::int64_t now = millisecond();
    if (_millisecond.exchange(now) == now) {
        if (++_inMillisecond == kFlood) gather(true);
    } else if (_inMillisecond.exchange(1) < kFlood) {
        gather(false);
    }
}

void Gathering::endUnlessFlooded() {
    if (_on && _millisecond != millisecond()) gather(false);
}

void Gathering::gather(bool on) {
    if (_on.exchange(on) == on) return;
    const std::lock_guard<std::mutex> lock(_mutex);
    for (const auto& connection : _connection) platform::sendAtOnce(connection, !on);
}

std::int64_t Gathering::millisecond() {
    const auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(sinceStart).count();
}

}  // namespace kel
