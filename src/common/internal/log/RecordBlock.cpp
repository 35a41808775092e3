#include "RecordBlock.h"

#include <Poco/Timestamp.h>

#include <cstring>

#include "../platform/Platform.h"

namespace kel {

namespace {

struct Head {
    std::int64_t microseconds;
    std::size_t sourceSize;
    std::size_t fileSize;
    std::size_t textSize;
    int priority;
    int line;
};

std::string_view baseName(const char* path) noexcept {
    std::string_view name(path ? path : "");
    for (const char separator : platform::pathSeparators()) {
        name.remove_prefix(name.rfind(separator) + 1);  // nothing, if it does not occur
    }
    return name;
}

}  // namespace

LogRecord recordOf(const Poco::Message& message) noexcept {
    return {message.getTime().epochMicroseconds(),
            static_cast<int>(message.getPriority()),
            message.getSourceLine(),
            message.getSource(),
            baseName(message.getSourceFile()),
            message.getText()};
}

LogRecord recordOfNow(std::string_view source, std::string_view text, int priority,
                      const char* sourceFile, int line) noexcept {
    const std::int64_t now = Poco::Timestamp().epochMicroseconds();
    return {now, priority, line, source, baseName(sourceFile), text};
}

std::size_t RecordBlock::sizeOf(const LogRecord& record) noexcept {
    return sizeof(Head) + record.source.size() + record.file.size() + record.text.size();
}

void RecordBlock::append(const LogRecord& record) noexcept {
    const Head head{record.microseconds, record.source.size(), record.file.size(),
                    record.text.size(),  record.priority,      record.line};
    _bytes.append(reinterpret_cast<const char*>(&head), sizeof(head));
    _bytes.append(record.source).append(record.file).append(record.text);
    ++_count;
}

void RecordBlock::clear() noexcept {
    _bytes.clear();
    _count = 0;
}

LogRecord RecordBlock::read(std::size_t& position) const noexcept {
    Head head;
    const char* from = _bytes.data() + position;
    std::memcpy(&head, from, sizeof(head));
    from += sizeof(head);
    const std::string_view texts(from, head.sourceSize + head.fileSize + head.textSize);
    position += sizeof(head) + texts.size();
    return {head.microseconds,
            head.priority,
            head.line,
            texts.substr(0, head.sourceSize),
            texts.substr(head.sourceSize, head.fileSize),
            texts.substr(head.sourceSize + head.fileSize)};
}

}  // namespace kel
