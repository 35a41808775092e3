#include "Access.h"

#include <Poco/Exception.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/String.h>
#include <Poco/URI.h>

#include <algorithm>
#include <utility>

namespace status_page {

using Poco::Net::HTTPResponse;
using Poco::Net::HTTPServerRequest;

bool isKey(const std::string& given, const std::string& expected) {
    if (expected.empty() || given.size() != expected.size()) return false;
    unsigned difference = 0;
    for (std::size_t i = 0; i < given.size(); ++i) {
        difference |=
            static_cast<unsigned char>(given[i]) ^ static_cast<unsigned char>(expected[i]);
    }
    return difference == 0;
}

Access::Access(std::string key, std::vector<std::string> hostNames, std::string plainScheme)
    : _key(std::move(key)),
      _hostNames(std::move(hostNames)),
      _plainScheme(std::move(plainScheme)) {}

bool Access::isOurs(const std::string& authority) const {
    try {
        const std::string name = Poco::toLower(Poco::URI("http://" + authority).getHost());
        Poco::Net::IPAddress address;
        return name == "localhost" || Poco::Net::IPAddress::tryParse(name, address) ||
               std::find(_hostNames.begin(), _hostNames.end(), name) != _hostNames.end();
    } catch (const Poco::SyntaxException&) {
        return false;
    }
}

std::optional<Access::Refusal> Access::checkSource(const HTTPServerRequest& request,
                                                   bool page) const {
    const std::string host = request.get("Host", "");
    if (!isOurs(host)) {
        return Refusal{HTTPResponse::HTTP_FORBIDDEN,
                       "this host is asked by its address, or by a name in http.hostNames"};
    }
    const std::string origin = (request.secure() ? "https" : _plainScheme) + "://" + host;
    const std::string site = request.get("Sec-Fetch-Site", "none");
    const bool followedLink = page && request.get("Sec-Fetch-Mode", "") == "navigate";
    if (Poco::icompare(request.get("Origin", origin), origin) != 0 ||
        (site != "none" && site != "same-origin" && !followedLink)) {
        return Refusal{HTTPResponse::HTTP_FORBIDDEN, "pages of other sites may not ask"};
    }
    return std::nullopt;
}

std::optional<Access::Refusal> Access::checkKey(const HTTPServerRequest& request) const {
    const std::string scheme = "Bearer ", credentials = request.get("Authorization", "");
    if (Poco::icompare(credentials, 0, scheme.size(), scheme) == 0 &&
        isKey(credentials.substr(scheme.size()), _key)) {
        return std::nullopt;
    }
    return Refusal{HTTPResponse::HTTP_UNAUTHORIZED,
                   "a key is needed: Authorization: Bearer <setting http.key>"};
}

}  // namespace status_page
