#include "ServerUri.h"

#include <Poco/Net/DNS.h>
#include <Poco/Net/HostEntry.h>
#include <Poco/URI.h>

#include <map>

namespace kel {

namespace {

constexpr std::uint16_t kMqttPort = 1883;

// An IPv6 address has colons of its own, none of which begins a port.
bool isAddressAlone(const std::string& text) {
    Poco::Net::IPAddress address;
    return Poco::Net::IPAddress::tryParse(text, address);
}

Poco::URI uriOf(const std::string& text) {
    const bool hasScheme = text.find("://") != std::string::npos;
    return Poco::URI(hasScheme ? text : "tcp://" + text);
}

std::uint16_t defaultPortOf(const std::string& scheme) {
    static const std::map<std::string, std::uint16_t> others = {
        {"ssl", 8883}, {"mqtts", 8883}, {"ws", 80}, {"wss", 443}};
    const auto found = others.find(scheme);
    return found == others.end() ? kMqttPort : found->second;
}

}  // namespace

std::string hostOfServerUri(const std::string& text) {
    if (isAddressAlone(text)) return text;
    const std::string host = uriOf(text).getHost();
    const bool bracketed = host.starts_with('[') && host.ends_with(']');
    return bracketed ? host.substr(1, host.size() - 2) : host;
}

std::uint16_t portOfServerUri(const std::string& text) {
    if (isAddressAlone(text)) return kMqttPort;
    const Poco::URI uri = uriOf(text);
    const std::uint16_t given = uri.getSpecifiedPort();
    return given != 0 ? given : defaultPortOf(uri.getScheme());
}

std::string withoutCredentials(const std::string& text) {
    const std::size_t scheme = text.find("://");
    const std::size_t begin = scheme == std::string::npos ? 0 : scheme + 3;
    const std::size_t at = text.rfind('@', text.find_first_of("/?#", begin));
    if (at == std::string::npos || at < begin) return text;
    return text.substr(0, begin) + text.substr(at + 1);
}

std::vector<Poco::Net::IPAddress> addressesOfHost(const std::string& host) {
    Poco::Net::IPAddress address;
    if (Poco::Net::IPAddress::tryParse(host, address)) return {address};
    return Poco::Net::DNS::hostByName(host).addresses();
}

}  // namespace kel
