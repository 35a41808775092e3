#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace kel {

/// What becomes of one published message at QoS 1 or 2. Threads: any.
class Receipt {
public:
    using Clock = std::chrono::steady_clock;

    enum class Fate { kOpen, kConfirmed, kSessionLost };

    /// The first call counts.
    void settle(Fate fate);

    /// Waits until the fate is known, at the longest until `deadline`, and no longer once `giveUp`,
    /// which is asked ten times a second where there is one, returns true. Neither is an error:
    /// kOpen.
    Fate await(Clock::time_point deadline, const std::function<bool()>& giveUp);

private:
    std::mutex _mutex;
    std::condition_variable _settled;
    Fate _fate = Fate::kOpen;  // guarded by _mutex
};

}  // namespace kel
