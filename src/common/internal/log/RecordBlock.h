#pragma once

#include <Poco/Message.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

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

/// Records one behind the other in one piece of memory. Nothing in it points outside, because the
/// literal that names a message's source file may belong to a plug-in that is unloaded before the
/// line is written. Threads: one at a time.
class RecordBlock {
public:
    explicit RecordBlock(std::size_t capacity) : _bytes(new char[capacity]), _capacity(capacity) {}

    /// Bytes that `record` takes up in a block.
    static std::size_t sizeOf(const LogRecord& record) noexcept;

    bool hasRoomFor(std::size_t bytes) const noexcept { return _capacity - _used >= bytes; }

    /// There must be room.
    void append(const LogRecord& record) noexcept;

    /// Reads the record at `position` and moves `position` to the next one.
    LogRecord read(std::size_t& position) const noexcept;

    std::size_t used() const noexcept { return _used; }
    std::size_t capacity() const noexcept { return _capacity; }
    void clear() noexcept { _used = 0; }

private:
    std::unique_ptr<char[]> _bytes;
    std::size_t _capacity;
    std::size_t _used = 0;
};

}  // namespace kel
