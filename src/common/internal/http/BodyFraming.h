#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "RequestHead.h"

namespace kel {

/// Follows a request's body byte by byte to its end, so that a malformed chunk is noticed before a
/// parser that is more lenient sees it, and so that nothing of the next request is taken for this
/// one's. Threads: one at a time.
class BodyFraming {
public:
    BodyFraming() = default;  ///< no body
    explicit BodyFraming(const BodyAnnouncement& announced);

    bool complete() const noexcept { return _state == State::kComplete; }

    /// Bytes that can be taken without reading beyond the body; at least 1 until it is complete.
    std::size_t wanted() const noexcept;

    /// Takes note of the next bytes.
    /// @return how many of them belong to the body; fewer than all only if it is complete then.
    /// @throws Poco::Net::MessageException  malformed, or with trailers; its code is the status to
    ///         answer with.
    std::size_t take(std::string_view bytes);

private:
    enum class State {
        kLength,
        kChunkSize,
        kChunkExtension,
        kChunkSizeEnd,
        kChunkData,
        kChunkDataEnd,
        kChunkDataEndLine,
        kLastLine,
        kLastLineEnd,
        kComplete
    };

    void takeFramingByte(char c);
    void takeSizeByte(char c);
    void expect(char c, char expected, State next);
    bool countsDown() const noexcept;

    State _state = State::kComplete;
    std::int64_t _left = 0;  // of the body, or of the chunk
    std::size_t _lineLength = 0;
};

}  // namespace kel
