#pragma once

#include <chrono>

namespace kel {

/// One connect to a broker at a time in the process. The MQTT library itself lets connects wait for
/// each other, and the destruction of a handle for them (up to 30 s); and it ends its receive
/// thread when a disconnect leaves no connection, also under a connect that has just begun, which
/// then waits for nobody until its time-out. Threads: any.
class ConnectTurn {
public:
    /// Waits for the turn, `patience` at the longest. The turn ends with the object.
    explicit ConnectTurn(std::chrono::milliseconds patience);
    ~ConnectTurn();
    ConnectTurn(const ConnectTurn&) = delete;
    ConnectTurn& operator=(const ConnectTurn&) = delete;

    /// Whether it came in time.
    explicit operator bool() const { return _mine; }

private:
    bool _mine;
};

}  // namespace kel
