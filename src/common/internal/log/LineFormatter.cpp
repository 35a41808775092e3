#include "LineFormatter.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/LocalDateTime.h>
#include <Poco/Timestamp.h>

#include <algorithm>
#include <charconv>
#include <iterator>

#include "../platform/Platform.h"

namespace kel {

namespace {

constexpr std::int64_t kMicroseconds = 1000000;
constexpr std::int64_t kTenth = 100000;

std::string_view priorityName(int priority) {
    static constexpr std::string_view names[] = {"Fatal",  "Critical",    "Error", "Warning",
                                                 "Notice", "Information", "Debug", "Trace"};
    return names[std::clamp(priority, 1, static_cast<int>(std::size(names))) - 1];
}

void appendNumber(PagedText& text, std::int64_t number) {
    char digits[24];
    const auto end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
    text.append(digits, end);
}

}  // namespace

const std::string& LineFormatter::secondText(std::int64_t second) {
    if (second != _second) {
        const Poco::LocalDateTime local{Poco::DateTime(Poco::Timestamp(second * kMicroseconds))};
        _secondText = Poco::DateTimeFormatter::format(local, "%Y-%m-%d-%H:%M:%S.");
        _second = second;
    }
    return _secondText;
}

void LineFormatter::append(const LogRecord& record, LineBlock& block) {
    PagedText& text = block.text;
    text += secondText(record.microseconds / kMicroseconds);
    appendNumber(text, record.microseconds % kMicroseconds / kTenth);
    text += '-';
    text += record.source;
    text += ':';
    text += record.file;
    text += ':';
    appendNumber(text, record.line);
    text += ':';
    text += priorityName(record.priority);
    text += ':';
    text += record.text;
    text += platform::lineEnd();
    block.lines.push_back({text.size(), record.priority});
}

LineBlockPtr LineFormatter::format(const RecordBlock& records) {
    auto block = std::make_shared<LineBlock>();
    block->text.reserve(records.used() + records.used() / 4);
    block->lines.reserve(records.count());
    for (std::size_t position = 0; position < records.used();) {
        append(records.read(position), *block);
    }
    return block;
}

}  // namespace kel
