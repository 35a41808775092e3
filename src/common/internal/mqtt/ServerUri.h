#pragma once

#include <string>

namespace kel {

/// The host in what names a server: "tcp://host:1883", "host:1883", "host", "[::1]:1883", "::1".
/// Brackets around an IPv6 address go; a user, a path and so on are passed over.
/// @throws Poco::SyntaxException  `text` is nothing of that kind.
std::string hostOfServerUri(const std::string& text);

}  // namespace kel
