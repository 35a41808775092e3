#pragma once

#include "../../PoolStatistics.h"

namespace kel {

/// The figures of ThreadPool::defaultPool(); zeros until somebody has used it. Starts nothing.
/// Threads: any.
PoolStatistics defaultPoolStatistics();

}  // namespace kel
