#pragma once

#include <Poco/JSON/Object.h>

#include <cstddef>
#include <limits>
#include <string>

namespace kel {

/// What one JSON text may cost. Without a limit on values 8 MiB of "{},{},..." become some 2.4 GB,
/// because each value takes up to 900 bytes in memory, however short its text is.
struct JsonLimits {
    static constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

    std::size_t bytes = kNone;   ///< of the text
    std::size_t depth = 128;     ///< objects and arrays within each other, the outermost included
    std::size_t values = kNone;  ///< numbers, strings, flags, nulls, objects and arrays together
};

/// Parses a text whose root is an object; its keys are sorted. A text over the limits is given up
/// where the first value beyond them would be made, hence before it takes more memory.
/// @return never empty.
/// @throws Poco::JSON::JSONException     no JSON, or over the limits.
/// @throws Poco::SyntaxException         a number that no type holds.
/// @throws Poco::InvalidAccessException  no value at all.
/// @throws Poco::BadCastException        the root is no object.
/// Threads: any.
Poco::JSON::Object::Ptr parseJsonObject(const std::string& text, const JsonLimits& limits = {});

/// A byte of a text; both counted from 1.
struct TextPlace {
    std::size_t line = 1;
    std::size_t column = 1;
};

/// The last byte of `text` that the parser takes: where `text` is no JSON, the place of the fault.
/// Costs as much as parsing. Threads: any.
TextPlace placeOfJsonError(const std::string& text);

}  // namespace kel
