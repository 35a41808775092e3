#pragma once

#include <cstdint>
#include <string_view>

namespace kel {

/// The body that a request's head announces.
struct BodyAnnouncement {
    bool chunked = false;
    std::int64_t length = 0;  ///< in bytes; of a body that is not chunked
};

/// Checks a request's head, from its request line to the empty line at its end, before any parser
/// that is more lenient sees it: two readers of one head, such as a proxy in front of this process,
/// must not come to see different requests in it.
/// @throws Poco::Net::MessageException  its code is the status to answer with.
BodyAnnouncement checkRequestHead(std::string_view head);

/// Whether a request can begin with this byte.
bool beginsRequest(char first) noexcept;

}  // namespace kel
