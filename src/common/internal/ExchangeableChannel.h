#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <deque>
#include <mutex>

namespace kel {

/// A log channel that forwards to another one, which can be exchanged while threads log through
/// it: no line is lost, doubled or overtaken, and log() never waits for the exchange.
/// Threads: any.
class ExchangeableChannel : public Poco::Channel {
public:
    void log(const Poco::Message& message) override;

    /// Forwards to `next` from now on. Lines that arrive meanwhile wait here until the earlier
    /// ones have been written: `next` must not be in use, and log() on it must not block.
    /// @param drainPrevious  writes out what the previous channel still holds.
    template <typename Drain>
    void exchange(Poco::AutoPtr<Poco::Channel> next, Drain&& drainPrevious) {
        const std::lock_guard<std::mutex> oneExchange(_exchangeMutex);
        hold();
        drainPrevious();
        resume(std::move(next));
    }

private:
    void hold();
    void resume(Poco::AutoPtr<Poco::Channel> next);

    std::mutex _exchangeMutex;

    std::mutex _mutex;
    // Guarded by _mutex.
    Poco::AutoPtr<Poco::Channel> _target;
    bool _holding = false;
    std::deque<Poco::Message> _held;
};

}  // namespace kel
