#include "BodyFraming.h"

#include <Poco/Ascii.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/NetException.h>

#include <algorithm>

namespace kel {

namespace {

constexpr std::size_t kMaxSizeDigits = 7;    // chunks of up to 256 MiB
constexpr std::size_t kMaxSizeLine = 256;    // with its extensions
constexpr std::size_t kReadAhead = 1 << 14;  // where a chunked body's end is not known

[[noreturn]] void refuse(const char* why) {
    throw Poco::Net::MessageException(why, Poco::Net::HTTPResponse::HTTP_BAD_REQUEST);
}

int hexValue(char c) {
    if (c <= '9') return c - '0';
    return (c | 0x20) - 'a' + 10;
}

}  // namespace

BodyFraming::BodyFraming(const BodyAnnouncement& announced) : _left(announced.length) {
    if (announced.chunked) {
        _state = State::kChunkSize;
    } else if (_left > 0) {
        _state = State::kLength;
    }
}

std::size_t BodyFraming::wanted() const noexcept {
    if (_state == State::kLength) return static_cast<std::size_t>(_left);
    return complete() ? 0 : kReadAhead;
}

bool BodyFraming::countsDown() const noexcept {
    return _state == State::kLength || _state == State::kChunkData;
}

std::size_t BodyFraming::take(std::string_view bytes) {
    std::size_t taken = 0;
    while (taken < bytes.size() && !complete()) {
        if (!countsDown()) {
            takeFramingByte(bytes[taken++]);
            continue;
        }
        const auto run = std::min<std::int64_t>(_left, std::int64_t(bytes.size() - taken));
        taken += static_cast<std::size_t>(run);
        _left -= run;
        if (_left == 0) {
            _state = _state == State::kLength ? State::kComplete : State::kChunkDataEnd;
        }
    }
    return taken;
}

void BodyFraming::takeFramingByte(char c) {
    switch (_state) {
        case State::kChunkSize:
        case State::kChunkExtension:
            return takeSizeByte(c);
        case State::kChunkSizeEnd:
            _lineLength = 0;
            return expect(c, '\n', _left > 0 ? State::kChunkData : State::kLastLine);
        case State::kChunkDataEnd:
            return expect(c, '\r', State::kChunkDataEndLine);
        case State::kChunkDataEndLine:
            return expect(c, '\n', State::kChunkSize);
        case State::kLastLine:  // anything else would begin a trailer
            return expect(c, '\r', State::kLastLineEnd);
        default:
            return expect(c, '\n', State::kComplete);
    }
}

void BodyFraming::takeSizeByte(char c) {
    const bool inExtension = _state == State::kChunkExtension;
    if (c == '\r' && _lineLength > 0) {
        _state = State::kChunkSizeEnd;
    } else if (c == ';' && _lineLength > 0) {
        _state = State::kChunkExtension;
    } else if (!inExtension && (!Poco::Ascii::isHexDigit(c) || _lineLength == kMaxSizeDigits)) {
        refuse("malformed chunk size");
    } else if (inExtension && (static_cast<unsigned char>(c) < ' ' || c == 0x7F)) {
        refuse("malformed chunk extension");
    } else if (!inExtension) {
        _left = _left * 16 + hexValue(c);
    }
    if (++_lineLength > kMaxSizeLine) refuse("chunk size line too long");
}

void BodyFraming::expect(char c, char expected, State next) {
    if (c != expected) refuse("malformed chunk or trailer");
    _state = next;
}

}  // namespace kel
