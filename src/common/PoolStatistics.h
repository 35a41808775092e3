#pragma once

#include <cstdint>

namespace kel {

/// The threads of a pool at one moment.
struct PoolStatistics {
    std::uint64_t threads = 0;  ///< that exist
    std::uint64_t used = 0;     ///< that run something
    std::uint64_t limit = 0;    ///< the most there can be; 0 while there is no such pool
};

}  // namespace kel
