#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

/// A host that only the thread which made it can reach, in a network of its own: it takes its time
/// to answer a ping. Leaves the thread in that network.
class SlowHost {
public:
    explicit SlowHost(std::chrono::milliseconds delay);
    ~SlowHost();
    SlowHost(const SlowHost&) = delete;
    SlowHost& operator=(const SlowHost&) = delete;

    static constexpr const char* kAddress = "10.77.0.2";

    /// Why there is no such host, as the system may not allow it; empty if there is.
    const std::string& missing() const { return _missing; }

private:
    void answer();

    std::chrono::milliseconds _delay;
    std::string _missing;
    int _tun = -1;
    std::atomic<bool> _done{false};
    std::thread _thread;
};
