#include "ServerUri.h"

#include <Poco/Net/IPAddress.h>
#include <Poco/URI.h>

namespace kel {

std::string hostOfServerUri(const std::string& text) {
    Poco::Net::IPAddress address;
    if (Poco::Net::IPAddress::tryParse(text, address)) return text;  // IPv6 has colons of its own
    const bool hasScheme = text.find("://") != std::string::npos;
    const std::string host = Poco::URI(hasScheme ? text : "tcp://" + text).getHost();
    const bool bracketed = host.starts_with('[') && host.ends_with(']');
    return bracketed ? host.substr(1, host.size() - 2) : host;
}

}  // namespace kel
