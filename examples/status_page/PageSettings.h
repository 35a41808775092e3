#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace status_page {

/// Where the page is served, and to whom. Where the certificate that the library's settings name
/// exists (kel::serverCertificateFile()), it is served over TLS, and over nothing else unless
/// besideTls is set.
struct PageSettings {
    std::string address = "127.0.0.1";
    std::uint16_t port = 9528;    ///< without TLS; 0 takes any that is free
    std::uint16_t tlsPort = 443;  ///< with TLS; 0 as above
    /// Whether programs on this machine are served without TLS beside it, at 127.0.0.1 and `port`.
    bool besideTls = false;
    /// Whether another address than a loopback one may be served without TLS.
    bool openToNetwork = false;

    std::string key;         ///< for everything that shows contents or changes something
    std::string hookSecret;  ///< for the reports of other processes, in the query of their hook URL

    std::string hostNames;        ///< by which browsers may ask, separated by commas
    std::string scheme = "http";  ///< "https" behind a proxy that speaks TLS

    std::vector<std::string> shownSettings;  ///< see Disclosure
};

}  // namespace status_page
