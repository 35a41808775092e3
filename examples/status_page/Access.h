#pragma once

#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>

#include <optional>
#include <string>
#include <vector>

namespace status_page {

/// Whether both are the same; the time tells nothing about where they differ. Empty is never right.
bool isKey(const std::string& given, const std::string& expected);

/// Who may ask. Two questions, because the key alone does not keep out a page elsewhere that a
/// user's browser runs, nor the checks of the browser's own headers a program:
///  - where a request comes from: its "Host" is an address, "localhost" or a configured name, since
///    any other name can be made to point here; "Origin" and "Sec-Fetch-Site", which browsers send
///    and scripts cannot change, do not tell of another site;
///  - whether it knows the key: "Authorization: Bearer <key>".
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

    /// Nothing if the request may come from where it does.
    /// @param page  it is for the page itself, to which a link on another site may lead.
    std::optional<Refusal> checkSource(const Poco::Net::HTTPServerRequest& request,
                                       bool page) const;

    /// Nothing if it has the key.
    std::optional<Refusal> checkKey(const Poco::Net::HTTPServerRequest& request) const;

private:
    bool isOurs(const std::string& authority) const;

    const std::string _key;
    const std::vector<std::string> _hostNames;
    const std::string _plainScheme;
};

}  // namespace status_page
