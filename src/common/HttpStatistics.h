#pragma once

#include <cstdint>

namespace kel {

/// A server's own numbers at one moment. Cheap enough to be asked for with every request.
struct HttpStatistics {
    // At this moment.
    std::uint64_t connections = 0;  ///< open and served by a thread
    std::uint64_t queued = 0;       ///< open and waiting for a thread

    // Since the last start(), which begins at zero.
    std::uint64_t mostQueued = 0;  ///< the most connections that waited while no thread was free
    std::uint64_t refused = 0;     ///< connections in excess, answered with status 503 and closed
    std::uint64_t requests = 0;    ///< handed to the callback, or refused for what was in them
    std::uint64_t status2xx = 0;   ///< replies by class of their status
    std::uint64_t status3xx = 0;   ///< redirections
    std::uint64_t status4xx = 0;   ///< what is wrong with the request
    std::uint64_t status5xx = 0;   ///< what is wrong here
};

}  // namespace kel
