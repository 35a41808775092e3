#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "Receipt.h"

namespace kel {

/// Places for the messages of one MQTT session that the broker has not acknowledged yet. Publishers
/// wait here and go on as acknowledgements come; the MQTT library has a wait of its own, which
/// polls ten times a second and is reached only where the socket takes no more. Threads: any.
class InFlightWindow {
public:
    static constexpr int kPlaces = 10;

    /// Identifies the session that a place belongs to.
    using Session = unsigned;

    /// Asked while a publisher waits; true ends its wait without a place.
    using GiveUp = std::function<bool()>;

    /// Before a session is made: what was in flight in the last one will not be acknowledged.
    void forget();

    /// A session has begun. All places are free, but for messages that have gone out in it already.
    void open();

    /// The session admits no further message; waiting publishers return. What is in flight can
    /// still be acknowledged.
    void close();

    /// What is in flight will hardly be acknowledged any more: its receipts say so.
    void abandon();

    /// Waits for a free place and takes it: 0.2 ms at the longest until half of them are free, then
    /// until one is. Empty if there is no session, it ends meanwhile, or `giveUp`, which is asked
    /// ten times a second, says so.
    std::optional<Session> take(const GiveUp& giveUp = {});

    /// The message of a place that was taken in `session` goes out as `token`. It counts for the
    /// session that it goes out in, which may be a later one by now.
    /// @param receipt  is told what becomes of the message; may be null.
    void sent(Session session, int token, std::shared_ptr<Receipt> receipt = {});

    /// For a message at QoS 0, which takes no place: between two acknowledgements a few of them go
    /// out at once, a further one waits for the next acknowledgement, 10 ms at the longest.
    /// Otherwise they fill the way to the broker, and each acknowledgement comes behind all of
    /// them.
    /// @return whether nothing is in flight.
    bool pace();

    /// Gives back a place whose message was not sent; of an earlier session it counts for nothing.
    void giveBack(Session session);

    /// @return whether `token` was in flight. It is not where a broker acknowledges twice, after
    ///         the library's retry, or what was never sent.
    bool delivered(int token);

    bool isOpen() const;

private:
    struct Sent {
        int token = 0;
        std::shared_ptr<Receipt> receipt;
    };

    int used() const { return _taken + _sent; }
    void awaitHalf(std::unique_lock<std::mutex>& lock);
    void acknowledged();

    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::condition_variable _halfFree;
    std::condition_variable _paceChanged;
    // Guarded by _mutex.
    Session _session = 0;
    bool _open = false;
    int _taken = 0;         // places whose message has not gone out yet
    int _sent = 0;          // places whose message has
    int _atQos0 = 0;        // messages since the last acknowledgement
    int _paced = 0;         // publishers that wait in pace()
    int _awaitingHalf = 0;  // publishers that wait in awaitHalf()
    std::array<Sent, std::size_t{2} * kPlaces> _messages;  // that have gone out
};

}  // namespace kel
