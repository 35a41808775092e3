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
/// 40 ms. A flood of messages at QoS 0, twenty within a millisecond, is gathered, which takes a
/// third of the processor time; its last messages may then be late by those 40 ms, unless another
/// one follows. Threads: any.
class Gathering {
public:
    /// A session has begun, over the connection to `port` that is not among `others`. Where it
    /// cannot be told, nothing is gathered.
    void begin(std::uint16_t port, const std::vector<platform::TcpConnection>& others);

    /// To be called before each publish at QoS 0.
    void countAtQos0();

    /// To be called before what must not be late: a publish at QoS 1 or 2, an acknowledgement.
    void endUnlessFlooded();

private:
    static std::int64_t millisecond();
    void gather(bool on);

    // The flood is told by these two alone; that they are not changed together costs a miscount.
    std::atomic<std::int64_t> _millisecond{0};  // of the last message at QoS 0
    std::atomic<int> _inMillisecond{0};         // messages in it
    std::atomic<bool> _on{false};

    std::mutex _mutex;
    std::vector<platform::TcpConnection> _connection;  // one or none; guarded by _mutex
};

}  // namespace kel
