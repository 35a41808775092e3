#include "JsonBody.h"

#include <Poco/JSON/JSONException.h>
#include <Poco/JSON/ParseHandler.h>
#include <Poco/JSON/Parser.h>

#include <string>
#include <vector>

#include "../../HttpLimits.h"

namespace kel {

namespace {

// Looks at the text before anything is built from it: the parser would make 2 GB of objects of
// 8 MiB of empty ones. A value is counted where it begins after an opening bracket or a comma.
void checkValues(const std::string& text) {
    std::size_t values = 1;
    int depth = 0;
    bool inText = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inText) {
            if (c == '\\') ++i;
            inText = c != '"';
        } else if (c == '"') {
            inText = true;
        } else if (c == ',') {
            ++values;
        } else if (c == '[' || c == '{') {
            ++values;
            ++depth;
        } else if (c == ']' || c == '}') {
            --depth;
        }
        if (values > HttpLimits::kJsonValues) {
            throw Poco::JSON::JSONException("body has too many values");
        }
        if (depth > HttpLimits::kJsonDepth) {
            throw Poco::JSON::JSONException("body is nested too deeply");
        }
    }
}

// Read whole first: the parser's C code must not have exceptions of the stream pass through it.
std::string readText(std::istream& body) {
    body.exceptions(std::ios::badbit);  // rethrow what the buffer threw
    std::string text;
    std::vector<char> block(16 * 1024);
    while (body) {
        body.read(block.data(), static_cast<std::streamsize>(block.size()));
        text.append(block.data(), static_cast<std::size_t>(body.gcount()));
        checkJsonBodyLength(static_cast<std::int64_t>(text.size()));
    }
    return text;
}

}  // namespace

void checkJsonBodyLength(std::int64_t length) {
    if (length > HttpLimits::kJsonSize)
        throw Poco::JSON::JSONException("body is longer than 8 MiB");
}

Poco::JSON::Object::Ptr readJsonObject(std::istream& body) {
    const std::string text = readText(body);
    checkValues(text);
    Poco::JSON::Parser parser(new Poco::JSON::ParseHandler(false));
    return parser.parse(text).extract<Poco::JSON::Object::Ptr>();
}

}  // namespace kel
