#pragma once

#include "../../PoolStatistics.h"

namespace kel {

/// Those of ThreadPool::defaultPool(); zeros until somebody has used it. Starts nothing.
/// Threads: any.
PoolStatistics defaultPoolStatistics();

}  // namespace kel
