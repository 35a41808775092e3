#pragma once

#include <chrono>
#include <functional>
#include <thread>

/// Waits until `condition` holds, for what nothing announces.
/// @return false if `limit` has passed first.
inline bool await(const std::function<bool()>& condition,
                  std::chrono::seconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}
