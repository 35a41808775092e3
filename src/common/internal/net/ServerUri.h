#pragma once

#include <Poco/Net/IPAddress.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kel {

/// The host in what names a server: "tcp://host:1883", "host:1883", "host", "[::1]:1883", "::1".
/// Brackets around an IPv6 address are left out; a user, a path and so on are passed over.
/// @throws Poco::SyntaxException  `text` is nothing of that kind.
std::string hostOfServerUri(const std::string& text);

/// The port in such a text. Where none is given, it is that of the scheme: 8883 for "ssl" and
/// "mqtts", 80 and 443 for "ws" and "wss", else 1883.
/// @throws Poco::SyntaxException  `text` is nothing of that kind.
std::uint16_t portOfServerUri(const std::string& text);

/// The same text without a user and a password in it, as a line in the log may show it.
std::string withoutCredentials(const std::string& text);

/// All addresses, of either family, of a host name or an address.
/// @throws Poco::Exception  the name does not resolve.
std::vector<Poco::Net::IPAddress> addressesOfHost(const std::string& host);

}  // namespace kel
