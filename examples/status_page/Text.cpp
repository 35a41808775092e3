#include "Text.h"

#include <Poco/TextConverter.h>
#include <Poco/UTF8Encoding.h>

#include <algorithm>

namespace status_page {

namespace {

constexpr int kReplacement = 0xFFFD;  // stands for each byte that is no UTF-8

// Whether the byte is a further one of a character that has several.
bool continues(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

}  // namespace

std::string excerpt(const char* text, std::size_t length, std::size_t limit) {
    const bool cut = length > limit;
    std::size_t end = std::min(length, limit);
    while (cut && end > 0 && continues(text[end])) --end;
    const Poco::UTF8Encoding utf8;
    std::string valid;
    Poco::TextConverter(utf8, utf8, kReplacement).convert(text, static_cast<int>(end), valid);
    return cut ? valid + "\u2026" : valid;
}

}  // namespace status_page
