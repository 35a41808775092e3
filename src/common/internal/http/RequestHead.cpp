#include "RequestHead.h"

#include <Poco/Ascii.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/NetException.h>

#include <algorithm>
#include <charconv>

namespace kel {

namespace {

using Poco::Net::HTTPResponse;

constexpr std::string_view kLineEnd = "\r\n";

[[noreturn]] void refuse(const char* why, int status = HTTPResponse::HTTP_BAD_REQUEST) {
    throw Poco::Net::MessageException(why, status);
}

bool isTokenByte(char c) noexcept {
    const bool letterOrDigit =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    return letterOrDigit || std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isToken(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isTokenByte);
}

bool isVisible(char c) {
    return static_cast<unsigned char>(c) > ' ' && c != 0x7F;
}

bool isValueByte(char c) {
    return isVisible(c) || c == ' ' || c == '\t';
}

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool equalsIgnoringCase(std::string_view text, std::string_view other) {
    const auto same = [](char a, char b) {
        return Poco::Ascii::toLower(a) == Poco::Ascii::toLower(b);
    };
    return text.size() == other.size() && std::equal(text.begin(), text.end(), other.begin(), same);
}

// Takes the text before `end`, and `end` itself, off the front of `rest`.
std::string_view takeUntil(std::string_view& rest, std::string_view end, const char* ifMissing) {
    const auto at = rest.find(end);
    if (at == std::string_view::npos) refuse(ifMissing);
    const std::string_view taken = rest.substr(0, at);
    rest.remove_prefix(at + end.size());
    return taken;
}

// @return whether the version is 1.1.
bool checkRequestLine(std::string_view line) {
    const std::string_view method = takeUntil(line, " ", "request line without a target");
    const std::string_view target = takeUntil(line, " ", "request line without a version");
    if (!isToken(method)) refuse("malformed request method");
    if (target.empty() || !std::all_of(target.begin(), target.end(), isVisible)) {
        refuse("malformed request target");
    }
    if (!line.starts_with("HTTP/")) refuse("malformed HTTP version");
    if (line != "HTTP/1.1" && line != "HTTP/1.0") {
        refuse("HTTP version not supported", HTTPResponse::HTTP_VERSION_NOT_SUPPORTED);
    }
    return line == "HTTP/1.1";
}

// The fields that say where a request ends and whom it is for: each at most once.
class FramingFields {
public:
    void note(std::string_view name, std::string_view value) {
        if (equalsIgnoringCase(name, "Content-Length")) noteLength(value);
        if (equalsIgnoringCase(name, "Transfer-Encoding")) noteEncoding(value);
        if (equalsIgnoringCase(name, "Host")) noteOnce(_host, "more than one Host");
    }

    BodyAnnouncement announcement(bool version11) const {
        if (_encoded && _sized) refuse("both Transfer-Encoding and Content-Length");
        if (_encoded && !version11) refuse("Transfer-Encoding in HTTP/1.0");
        return _announced;
    }

private:
    static void noteOnce(bool& noted, const char* ifAlready) {
        if (noted) refuse(ifAlready);
        noted = true;
    }

    void noteLength(std::string_view value) {
        noteOnce(_sized, "more than one Content-Length");
        const char* end = value.data() + value.size();
        const auto parsed = std::from_chars(value.data(), end, _announced.length);
        if (parsed.ec != std::errc() || parsed.ptr != end || value.front() == '-') {
            refuse("malformed Content-Length");
        }
    }

    void noteEncoding(std::string_view value) {
        noteOnce(_encoded, "more than one Transfer-Encoding");
        if (!equalsIgnoringCase(value, "chunked")) {
            refuse("Transfer-Encoding other than chunked", HTTPResponse::HTTP_NOT_IMPLEMENTED);
        }
        _announced.chunked = true;
    }

    bool _sized = false;
    bool _encoded = false;
    bool _host = false;
    BodyAnnouncement _announced;
};

}  // namespace

bool beginsRequest(char first) noexcept {
    return isTokenByte(first);
}

BodyAnnouncement checkRequestHead(std::string_view head) {
    const bool version11 = checkRequestLine(takeUntil(head, kLineEnd, "no request line"));
    FramingFields fields;
    while (!head.empty() && head != kLineEnd) {
        std::string_view value = takeUntil(head, kLineEnd, "field line without an end");
        const std::string_view name = takeUntil(value, ":", "field line without a colon");
        // Also refuses a blank before the colon, and a line that continues the one before.
        if (!isToken(name)) refuse("malformed field name");
        if (!std::all_of(value.begin(), value.end(), isValueByte)) refuse("malformed field value");
        fields.note(name, trimmed(value));
    }
    return fields.announcement(version11);
}

}  // namespace kel
