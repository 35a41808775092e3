#pragma once

#include <atomic>

namespace soak {

/// After so many further allocations by `new`, anywhere in the process, one fails; 0: none does.
extern std::atomic<long> untilFailure;

/// Whether the process gets no more threads, as at the system's limit.
extern std::atomic<bool> threadsRefused;

}  // namespace soak
