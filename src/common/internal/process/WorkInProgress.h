#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace kel {

/// Counts pieces of work that are under way, so that a stop can wait until none is. Threads: any.
class WorkInProgress {
public:
    /// One piece of work, from its construction to its destruction. The counter must live longer.
    class Item {
    public:
        explicit Item(WorkInProgress& work);
        ~Item();
        Item(const Item&) = delete;
        Item& operator=(const Item&) = delete;

    private:
        WorkInProgress& _work;
    };

    std::size_t count() const;

    /// Waits until nothing is under way, `patience` at the longest.
    /// @return whether nothing is.
    bool awaitNone(std::chrono::milliseconds patience) const;

private:
    mutable std::mutex _mutex;
    mutable std::condition_variable _ended;
    std::size_t _count = 0;  // guarded by _mutex
};

}  // namespace kel
