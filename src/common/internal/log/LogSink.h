#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string_view>

#include "LineBlock.h"

namespace kel {

/// When a sink last took something. Threads: any.
class Progress {
public:
    using Clock = std::chrono::steady_clock;

    void made() noexcept { _last = Clock::now(); }
    bool noneFor(std::chrono::milliseconds patience) const noexcept {
        return Clock::now() - _last.load() >= patience;
    }

private:
    std::atomic<Clock::time_point> _last{Clock::now()};
};

/// How much to write at once, so that each write, and with it each sign of progress, takes well
/// under a second: less where the last one was slow, more where it was fast.
class PieceSize {
public:
    explicit PieceSize(std::size_t most) : _most(most) {}

    /// The beginning of `text` to write next. It ends with a line, unless that is very long, so
    /// that another process that writes to the same place cuts no line in two.
    std::string_view next(std::string_view text) const noexcept;

    void took(std::chrono::nanoseconds duration) noexcept;

private:
    static constexpr std::size_t kLeast = 256;

    const std::size_t _most;
    std::size_t _size = kLeast;
};

/// One of the two places that lines are written to. Threads: one at a time.
class LogSink {
public:
    virtual ~LogSink() = default;

    /// Writes `block`, or what of it the last call with it left; may wait for as long as the system
    /// lets it.
    /// @return false if it failed: to be called again with the same block, a while later.
    virtual bool write(const LineBlock& block, Progress& progress) = 0;
};

}  // namespace kel
