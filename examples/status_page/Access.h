#pragma once

#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>

#include <optional>
#include <string>
#include <vector>

namespace status_page {

/// Whether `given` is the expected key. How long it takes does not tell where the two differ. An
/// empty key is never the right one.
bool isKey(const std::string& given, const std::string& expected);

/// Decides who may ask. There are two checks, because a page of another site that runs in a user's
/// browser is not kept out by the key alone, and a program is not kept out by the first check:
///  - where the request comes from. Its "Host" has to be an address, "localhost" or a configured
///    name, since anybody can make another name point here. "Origin" and "Sec-Fetch-Site", which
///    browsers send and scripts cannot change, must not name another site;
///  - whether it has the key: "Authorization: Bearer <key>".
/// Threads: any.
class Access {
public:
    struct Refusal {
        Poco::Net::HTTPResponse::HTTPStatus status;
        std::string reason;
    };

    /// @param hostNames  names by which browsers may ask, in lower case, without ports.
    /// @param plainScheme  of requests that come without TLS, as browsers see it: "http", or
    ///                     "https" behind a proxy that speaks TLS.
    Access(std::string key, std::vector<std::string> hostNames, std::string plainScheme);

    /// Why the request may not come from where it does; nothing if it may.
    /// @param page  whether it asks for the page itself, to which links on other sites may lead.
    std::optional<Refusal> checkSource(const Poco::Net::HTTPServerRequest& request,
                                       bool page) const;

    /// Why the request is refused that lacks the key; nothing if it has the key.
    std::optional<Refusal> checkKey(const Poco::Net::HTTPServerRequest& request) const;

private:
    bool isOurs(const std::string& authority) const;

    const std::string _key;
    const std::vector<std::string> _hostNames;
    const std::string _plainScheme;
};

}  // namespace status_page
