#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <vector>

#include "../platform/Platform.h"

namespace kel {

/// Whether the small packets of a session go out one by one, or TCP gathers them while the broker
/// has not acknowledged what went before. One by one is the rule, since it spares a message up to
/// 40 ms. A flood, at least twenty messages in each of five milliseconds, is gathered, which takes
/// up to two thirds of the processor time off; its last messages may then be late by those 40 ms,
/// once, unless more follow. Threads: any.
class Gathering {
public:
    /// A session has begun, over the connection to `port` that is not among `others`. Where it
    /// cannot be told, nothing is gathered.
    void begin(std::uint16_t port, const std::vector<platform::TcpConnection>& others);

    /// To be called before a publish.
    void count();

    /// To be called where what goes out must not be late, just before or just after. Ends a flood.
    void end();

private:
    using Milliseconds = std::chrono::milliseconds;

    void gather(bool on);

    std::atomic<bool> _on{false};  // changed under _mutex
    std::atomic<int> _flooded{0};  // milliseconds with many messages so far, without a gap

    std::mutex _mutex;
    // Guarded by _mutex.
    std::vector<platform::TcpConnection> _connection;  // one or none
    Milliseconds _millisecond{0};                      // of the last message
    int _messages = 0;                                 // in it
};

}  // namespace kel
