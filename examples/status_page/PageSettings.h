#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace status_page {

/// Whether the page may show the value of a setting; that of any other is covered.
enum Visibility { kShown, kSecret };

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

    /// Dotted keys of the host's settings that are shown; the library's own need not be named.
    std::vector<std::string> shownSettings;

    /// Makes the key and the secret where there is none, and puts them into the configuration
    /// store, which the host saves. Threads: as kel::configInstance().
    /// @return whether it made one.
    bool makeKeys();

    /// Calls `visitor(key, member, visibility)` for each setting that has a key in the
    /// configuration, to load or store them all.
    template <typename Self, typename Visitor>
    static void visit(Self& self, Visitor&& visitor) {
        visitor("http.address", self.address, kShown);
        visitor("http.port", self.port, kShown);
        visitor("http.sslport", self.tlsPort, kShown);
        visitor("http.besideTls", self.besideTls, kShown);
        visitor("http.openToNetwork", self.openToNetwork, kShown);
        visitor("http.key", self.key, kSecret);
        visitor("http.hookSecret", self.hookSecret, kSecret);
        visitor("http.hostNames", self.hostNames, kShown);
        visitor("http.scheme", self.scheme, kShown);
    }
};

}  // namespace status_page
