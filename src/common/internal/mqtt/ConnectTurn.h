#pragma once

#include <functional>

namespace kel {

/// One connect to a broker at a time in the process. The MQTT library itself lets connects wait for
/// each other, and the destruction of a handle for them, up to 30 s where a broker stays mute; and
/// it ends its receive thread when a disconnect leaves no connection, also under a connect that has
/// just begun, which then waits for nobody until its time-out. Threads: any.
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

    /// Waits while a connect has the turn that the library may not know of yet, 1 s at the longest.
    /// Where a connect needs longer than that to show in the library, which looks names up at that
    /// point, a disconnect may still end the receive thread under it; that attempt then fails.
    static void awaitVisible();

private:
    bool _mine = false;
};

}  // namespace kel
