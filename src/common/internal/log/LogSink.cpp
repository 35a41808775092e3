#include "LogSink.h"

#include <algorithm>

namespace kel {

std::string_view PieceSize::next(std::string_view text) const noexcept {
    constexpr std::size_t kLongLine = 4096;
    if (text.size() <= _size) return text;
    std::size_t end = text.rfind('\n', _size - 1);
    if (end == std::string_view::npos) end = text.substr(0, kLongLine).find('\n');
    return text.substr(0, end == std::string_view::npos ? _size : end + 1);
}

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
