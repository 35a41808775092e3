#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "../../HttpLimits.h"
#include "../../HttpStatistics.h"

namespace kel {

/// The times of HttpLimits as a server keeps them. Only a test has others.
struct ServerTimes {
    std::chrono::milliseconds head = HttpLimits::kHeadTime;
    std::chrono::milliseconds grace = HttpLimits::kGraceTime;
    std::chrono::milliseconds crowdedIdle = HttpLimits::kCrowdedIdleTime;
    std::chrono::milliseconds crowdedHead = HttpLimits::kCrowdedHeadTime;
};

/// What is counted of one server, or of all. Threads: any.
struct HttpCounters {
    std::atomic<std::uint64_t> refused{0};
    std::atomic<std::uint64_t> requests{0};
    std::atomic<std::uint64_t> mostWaiting{0};
    std::array<std::atomic<std::uint64_t>, 6> replies{};  ///< by class of status

    /// Those of all servers since the process started.
    static HttpCounters& ofProcess() {
        static HttpCounters all;
        return all;
    }

    HttpStatistics snapshot() const {
        HttpStatistics numbers;
        numbers.refused = refused;
        numbers.requests = requests;
        numbers.mostQueued = mostWaiting;
        numbers.status2xx = replies[2];
        numbers.status3xx = replies[3];
        numbers.status4xx = replies[4];
        numbers.status5xx = replies[5];
        return numbers;
    }
};

/// What a server and its connections tell each other; outlives both. Threads: any.
struct ServerState {
    explicit ServerState(const ServerTimes& kept) : times(kept) {}

    const ServerTimes times;

    std::atomic<bool> stopping{false};  ///< no further request is answered
    std::atomic<bool> crowded{false};   ///< connections wait, and no thread is free for them

    HttpCounters counters;

    void countRefusal() noexcept {
        for (HttpCounters* of : both()) ++of->refused;
    }

    void countRequest() noexcept {
        for (HttpCounters* of : both()) ++of->requests;
    }

    void countReply(int status) noexcept {
        const auto group = static_cast<std::size_t>(status / 100);
        for (HttpCounters* of : both()) {
            if (group < of->replies.size()) {
                of->replies[group].fetch_add(1, std::memory_order_relaxed);
            }
        }
    }

    void noteWaiting(std::uint64_t connections) noexcept {
        for (HttpCounters* of : both()) {
            std::uint64_t most = of->mostWaiting;
            while (most < connections && !of->mostWaiting.compare_exchange_weak(most, connections))
                continue;
        }
    }

private:
    std::array<HttpCounters*, 2> both() noexcept { return {&counters, &HttpCounters::ofProcess()}; }
};

}  // namespace kel
