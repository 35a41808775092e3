#include "Statistics.h"

#include "internal/http/AllServers.h"
#include "internal/log/LogPipeline.h"
#include "internal/mqtt/Messaging.h"
#include "internal/tasks/DefaultPool.h"

namespace kel {

namespace {

LogStatistics logStatistics() {
    const LogPipeline::Counters counted = logCounters();
    LogStatistics numbers;
    numbers.lines = counted.lines;
    numbers.written = counted.linesWritten;
    numbers.droppedByFile = counted.droppedFile;
    numbers.droppedByConsole = counted.droppedConsole;
    numbers.queueBytes = {counted.queuedBytes, counted.mostQueuedBytes};
    return numbers;
}

}  // namespace

Statistics statistics() {
    Statistics numbers;
    numbers.mqtt = mqttStatistics();
    numbers.http = httpStatisticsOfAllServers();
    numbers.log = logStatistics();
    numbers.pool = defaultPoolStatistics();
    return numbers;
}

}  // namespace kel
