#include "Gathering.h"

#include <algorithm>

#include "../log/UnitLog.h"

namespace kel {

namespace {

constexpr UnitLog log("src/common/MqttClient++");

constexpr int kManyMessages = 20;
constexpr int kManyMilliseconds = 5;

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
    _flooded = 0;
}

void Gathering::count() {
    const auto now = std::chrono::duration_cast<Milliseconds>(
        std::chrono::steady_clock::now().time_since_epoch());
    const std::lock_guard<std::mutex> lock(_mutex);
    if (now != _millisecond) {
        const bool goesOn = now == _millisecond + Milliseconds(1) && _messages >= kManyMessages;
        _flooded = goesOn ? _flooded + 1 : 0;
        _millisecond = now;
        _messages = 0;
        gather(_flooded >= kManyMilliseconds);
    }
    ++_messages;
}

void Gathering::end() {
    _flooded = 0;
    if (!_on) return;
    const std::lock_guard<std::mutex> lock(_mutex);
    gather(false);
}

void Gathering::gather(bool on) {
    if (_on.exchange(on) == on) return;
    for (const auto& connection : _connection) platform::sendAtOnce(connection, !on);
}

}  // namespace kel
