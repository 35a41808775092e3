#pragma once

#include <Poco/JSON/Object.h>

#include <cstdint>
#include <istream>

namespace kel {

/// Throws Poco::JSON::JSONException if a body of `length` bytes is longer than is read: 8 MiB.
void checkJsonBodyLength(std::int64_t length);

/// Reads a body that came over the network to its end and parses it; keys sorted. A body
/// beyond the limits of HttpLimits is refused before anything is built from it.
/// @return never empty.
/// @throws Poco::JSON::JSONException     no JSON, or beyond a limit.
/// @throws Poco::InvalidAccessException  no value; Poco::BadCastException: no object.
/// What the stream's buffer throws (a time-out, a lost connection) passes through.
Poco::JSON::Object::Ptr readJsonObject(std::istream& body);

}  // namespace kel
