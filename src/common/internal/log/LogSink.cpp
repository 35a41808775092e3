#include "LogSink.h"

#include <algorithm>

namespace kel {

void PieceSize::took(std::chrono::nanoseconds duration) noexcept {
    constexpr std::chrono::milliseconds kFast(10);
    constexpr std::chrono::milliseconds kSlow(100);
    if (duration < kFast) {
        _size = std::min(_most, 2 * _size);
    } else if (duration > kSlow) {
        _size = std::max(kLeast, _size / 4);
    }
}

}  // namespace kel
