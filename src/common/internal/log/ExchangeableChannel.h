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

    /// Forwards to what `makeNext` returns from now on. Lines that arrive meanwhile wait here, so
    /// `makeNext` may write out what the previous channel still holds. If it throws, the previous
    /// channel stays. log() on the next one must not block.
    template <typename MakeNext>
    void exchange(MakeNext&& makeNext) {
        const std::lock_guard<std::mutex> oneExchange(_exchangeMutex);
        hold();
        try {
            resume(makeNext());
        } catch (...) {
            resume(_target);
            throw;
        }
    }

private:
    void hold();
    void resume(Poco::AutoPtr<Poco::Channel> next) noexcept;

    std::mutex _exchangeMutex;

    std::mutex _mutex;
    // Guarded by _mutex; _target changes only under _exchangeMutex too.
    Poco::AutoPtr<Poco::Channel> _target;
    bool _holding = false;
    std::deque<Poco::Message> _held;
};

}  // namespace kel
