#include "JsonBody.h"

#include <Poco/JSON/JSONException.h>

#include <string>
#include <vector>

#include "../../HttpLimits.h"
#include "../json/ParseObject.h"

namespace kel {

namespace {

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
    const JsonLimits limits{static_cast<std::size_t>(HttpLimits::kJsonSize), HttpLimits::kJsonDepth,
                            HttpLimits::kJsonValues};
    return parseJsonObject(readText(body), limits);
}

}  // namespace kel
