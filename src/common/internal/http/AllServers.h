#pragma once

#include "../../HttpStatistics.h"

namespace kel {

/// The numbers of all servers of the process together, since it started. Threads: any.
HttpStatistics httpStatisticsOfAllServers();

}  // namespace kel
