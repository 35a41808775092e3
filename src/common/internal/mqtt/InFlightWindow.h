#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>

namespace kel {

/// Places for the messages of one MQTT session that the broker has not acknowledged yet. The
/// library has a wait of its own when they run out, but it polls ten times a second; publishers
/// wait here instead and go on as soon as an acknowledgement comes. Threads: any.
class InFlightWindow {
public:
    static constexpr int kPlaces = 10;  // the library's limit for "maximum in-flight -1"

    /// Identifies the session that a place belongs to.
    using Session = unsigned;

    /// A session begins, with all places free.
    void open();

    /// The session has ended; waiting publishers return.
    void close();

    /// Waits for a free place and takes it. Empty if there is no session or it ends meanwhile.
    std::optional<Session> take();

    /// Gives back a place whose message was not sent; of an earlier session it counts for nothing.
    void giveBack(Session session);

    /// A message of the current session has been acknowledged.
    void delivered();

private:
    void release();

    std::mutex _mutex;
    std::condition_variable _changed;
    // Guarded by _mutex.
    Session _session = 0;
    bool _open = false;
    int _taken = 0;
};

}  // namespace kel
