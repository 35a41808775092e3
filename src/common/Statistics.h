#pragma once

#include <cstdint>

#include "Export.h"
#include "HttpStatistics.h"
#include "MqttStatistics.h"
#include "PoolStatistics.h"
#include "QueueStatistics.h"

namespace kel {

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
    PoolStatistics pool;  ///< ThreadPool::defaultPool(); zeros until it is used
};

/// A snapshot; the figures are read one after the other, while others may count. Takes a few locks
/// for a moment each, so that it can be asked for with every scrape. It starts nothing.
/// In a forked child the figures of the log are 0. Never throws. Threads: any.
KEL_API Statistics statistics();

}  // namespace kel
