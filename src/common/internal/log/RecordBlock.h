#pragma once

#include <Poco/Message.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "PageAllocator.h"

namespace kel {

/// What a line is made from. The texts belong to the message or block that it was read from.
struct LogRecord {
    std::int64_t microseconds;  // since the epoch, UTC
    int priority;
    int line;
    std::string_view source;  // the logger's name
    std::string_view file;    // base name of the source file
    std::string_view text;
};

/// Everything of `message` that a line shows.
LogRecord recordOf(const Poco::Message& message) noexcept;

/// A line that is logged now.
/// @param sourceFile  path of the source file.
LogRecord recordOfNow(std::string_view source, std::string_view text, int priority,
                      const char* sourceFile, int line) noexcept;

/// Records one behind the other in one piece of memory. Nothing in it points outside, because the
/// literal that names a message's source file may belong to a plug-in that is unloaded before the
/// line is written. Threads: one at a time.
class RecordBlock {
public:
    explicit RecordBlock(std::size_t capacity) : _capacity(capacity) { _bytes.reserve(capacity); }

    /// Bytes that `record` takes up in a block.
    static std::size_t sizeOf(const LogRecord& record) noexcept;

    bool hasRoomFor(std::size_t bytes) const noexcept { return _capacity - used() >= bytes; }

    /// There must be room.
    void append(const LogRecord& record) noexcept;

    /// Reads the record at `position` and moves `position` to the next one.
    LogRecord read(std::size_t& position) const noexcept;

    std::size_t count() const noexcept { return _count; }  // of records
    std::size_t used() const noexcept { return _bytes.size(); }
    std::size_t capacity() const noexcept { return _capacity; }
    void clear() noexcept;

private:
    PagedText _bytes;
    std::size_t _capacity;
    std::size_t _count = 0;
};

}  // namespace kel
