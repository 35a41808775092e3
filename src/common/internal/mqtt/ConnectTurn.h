#pragma once

#include <functional>

namespace kel {

/// One connect to a broker at a time in the process. The MQTT library itself lets connects wait for
/// each other, and the destruction of a handle for them, up to 30 s where a broker stays mute.
/// Threads: any.
class ConnectTurn {
public:
    /// Asked ten times a second while a connect waits for its turn; true ends the wait.
    using GiveUp = std::function<bool()>;

    /// Waits for the turn. Of those that wait, the one with the lowest `rank` is next, so that
    /// brokers which do not answer hold up each other and not the others; the rank is the number of
    /// attempts in a row that have failed. The turn ends with the object.
    ConnectTurn(unsigned rank, const GiveUp& giveUp);
    ~ConnectTurn();
    ConnectTurn(const ConnectTurn&) = delete;
    ConnectTurn& operator=(const ConnectTurn&) = delete;

    /// Whether it came.
    explicit operator bool() const { return _mine; }

private:
    bool _mine = false;
};

}  // namespace kel
