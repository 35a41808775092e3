#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "../../HttpLimits.h"

namespace kel {

/// The times of HttpLimits as a server keeps them. Only a test has others.
struct ServerTimes {
    std::chrono::milliseconds head = HttpLimits::kHeadTime;
    std::chrono::milliseconds grace = HttpLimits::kGraceTime;
    std::chrono::milliseconds crowdedIdle = HttpLimits::kCrowdedIdleTime;
    std::chrono::milliseconds crowdedHead = HttpLimits::kCrowdedHeadTime;
};

/// What a server and its connections tell each other; outlives both. Threads: any.
struct ServerState {
    explicit ServerState(const ServerTimes& kept) : times(kept) {}

    const ServerTimes times;

    std::atomic<bool> stopping{false};  ///< no further request is answered
    std::atomic<bool> crowded{false};   ///< connections wait, and no thread is free for them

    std::atomic<std::uint64_t> refused{0};
    std::atomic<std::uint64_t> requests{0};
    std::array<std::atomic<std::uint64_t>, 6> replies{};  ///< by class of status

    void countReply(int status) noexcept {
        const auto group = static_cast<std::size_t>(status / 100);
        if (group < replies.size()) replies[group].fetch_add(1, std::memory_order_relaxed);
    }
};

}  // namespace kel
