#pragma once

#include <array>
#include <cstdint>

#include "Export.h"
#include "HttpStatistics.h"
#include "PoolStatistics.h"

namespace kel {

/// A queue at one moment.
struct QueueStatistics {
    std::uint64_t depth = 0;      ///< what is in it
    std::uint64_t highWater = 0;  ///< the most there has been since the library was last started
};

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

/// The process's log; what is written and dropped since its logging was last started.
struct LogStatistics {
    std::uint64_t lines = 0;             ///< logged since the process started
    std::uint64_t written = 0;           ///< to the file
    std::uint64_t droppedByFile = 0;     ///< because the file refused them for too long
    std::uint64_t droppedByConsole = 0;  ///< because the console took nothing for too long
    QueueStatistics queueBytes;          ///< lines that wait to be formatted, in bytes
};

/// What the library counts in this process.
struct Statistics {
    MqttStatistics mqtt;  ///< of all clients
    HttpStatistics http;  ///< of all servers since the process started, also of those that are gone
    LogStatistics log;    ///< of the process's logger
    PoolStatistics pool;  ///< ThreadPool::defaultPool()
};

/// A snapshot; the figures are read one after the other, while others may count. Takes a few locks
/// for a moment each, so that it can be asked for with every scrape. It starts nothing.
/// In a forked child the figures of the log are 0. Never throws. Threads: any.
KEL_API Statistics statistics();

}  // namespace kel
