#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace kel {

/// Hands arrived messages out, one at a time, off the MQTT library's receive thread, which must
/// never wait for a host. A message that finds nothing before it and a free thread in the pool is
/// handed out by the thread that brings it, since a further hop costs 50 to 100 us of delay; from
/// the first that finds none, all go through a bounded queue, to one thread, until it is empty. So
/// does a message of more than 16 KiB: handing out means parsing, which takes half a second for a
/// MiB, and the receive thread brings the acknowledgements of all clients.
///
/// Bounds: 4096 messages and 32 MiB, one message more; then the receive thread waits. While an
/// inline handler itself waits for the broker, whose answer the receive thread brings, the queue
/// may grow to twice that; then the handler's wait ends without success.
/// Threads: any.
class Dispatcher {
public:
    static constexpr std::size_t kMostMessages = 4096;
    static constexpr std::size_t kMostBytes = 32U << 20;
    static constexpr std::size_t kLargestAtOnce = 16U << 10;

    /// One message on its way to the handlers of its client.
    class Item {
    public:
        virtual ~Item() = default;

        /// Hands the message to a pool, where there is no place otherwise runs the handler itself.
        virtual void handOut() = 0;

        /// As handOut(), without running a handler and without waiting.
        /// @return false if the pool has no place; handOut() then goes on from there.
        virtual bool tryHandOut() = 0;

        /// What it takes in the queue.
        virtual std::size_t bytes() const = 0;
    };

    /// Marks a wait for the broker on the calling thread; nothing unless that is in run().
    class WaitsForBroker {
    public:
        WaitsForBroker();
        ~WaitsForBroker();
        WaitsForBroker(const WaitsForBroker&) = delete;
        WaitsForBroker& operator=(const WaitsForBroker&) = delete;

        /// Empty, or what says that the wait must end.
        const std::function<bool()>& giveUp() const { return _giveUp; }

    private:
        Dispatcher* const _dispatcher;
        std::function<bool()> _giveUp;
    };

    /// Takes a message; waits while the queue is full.
    void take(std::shared_ptr<Item> item);

    /// Takes a message without waiting and without handing it out, for callers that hold the
    /// library's lock.
    void push(std::shared_ptr<Item> item);

    /// The dispatching thread; returns after stop(), once the queue is empty.
    /// @param lookAfter  called every other second, between two messages.
    void run(const std::function<void()>& lookAfter);

    void stop();

    std::size_t depth() const;
    std::size_t highWater() const;       // the most messages there have been
    std::size_t bytesHighWater() const;  // the most bytes
    bool isFull() const;

private:
    bool hasRoom(std::size_t times) const;
    bool mayGrow() const;
    void append(std::shared_ptr<Item> item);
    std::shared_ptr<Item> next();
    bool over() const;

    mutable std::mutex _mutex;
    std::condition_variable _filled;
    std::condition_variable _drained;
    // Guarded by _mutex.
    std::deque<std::shared_ptr<Item>> _queue;
    std::size_t _bytes = 0;
    std::size_t _highWater = 0;
    std::size_t _bytesHighWater = 0;
    bool _busy = false;
    bool _waitsForBroker = false;
    bool _stopped = false;
};

}  // namespace kel
