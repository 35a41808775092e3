#pragma once

#include <array>
#include <cstdint>

#include "PoolStatistics.h"
#include "QueueStatistics.h"

namespace kel {

/// Messages of all clients of the process, since it started.
struct MqttStatistics {
    using ByQos = std::array<std::uint64_t, 3>;  ///< at QoS 0, 1 and 2

    ByQos received{};                 ///< as the broker sent them, those that are dropped included
    ByQos published{};                ///< accepted
    std::uint64_t confirmed = 0;      ///< deliveries at QoS 1 and 2
    std::uint64_t refused = 0;        ///< publishes that were not accepted
    std::uint64_t handledInline = 0;  ///< by the library's own thread, since the pool was full
    std::uint64_t reconnections = 0;  ///< sessions that followed a lost one

    QueueStatistics queue;      ///< messages that wait to be handed to a handler
    PoolStatistics handlers;    ///< the pool that runs handlers
    PoolStatistics background;  ///< threads that connect, reconnect and subscribe
};

}  // namespace kel
