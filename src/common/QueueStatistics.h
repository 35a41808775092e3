#pragma once

#include <cstdint>

namespace kel {

/// A queue at one moment.
struct QueueStatistics {
    std::uint64_t depth = 0;      ///< what is in it
    std::uint64_t highWater = 0;  ///< the most there has been since the library was last started
};

}  // namespace kel
