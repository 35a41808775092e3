#pragma once

#include <Poco/Exception.h>
#include <Poco/Net/Context.h>

#include <mutex>
#include <string>

#include "Settings.h"

namespace kel::tls {

/// A context of POCO's, with what POCO leaves open: TLS 1.2 at least, revocation lists, passphrases
/// from the settings, one clear reason for everything that does not load.
/// @param serverName  whom a client's context expects; empty for a server's.
/// @throws Poco::Net::SSLException  a file is missing or unusable; the text names it.
/// @throws Poco::InvalidArgumentException  a setting cannot be used; the text names its key.
Poco::Net::Context::Ptr makeContext(const Settings& settings, const std::string& serverName = "");

/// Forgets what earlier handshakes on this thread left behind. OpenSSL reads its errors from a
/// queue of the thread's, and POCO leaves some of them there.
void beginTls() noexcept;

/// Why what `exc` came from failed, in words. On the thread that met it.
std::string failureReason(const Poco::Exception& exc);

/// A server's context for as long as its files stay as they are. Threads: any.
class RenewedContext {
public:
    /// Throws as makeContext().
    explicit RenewedContext(Settings settings);

    /// The context of the files as they are now; the previous one where they do not load, which is
    /// logged once.
    Poco::Net::Context::Ptr current();

private:
    const Settings _settings;
    std::mutex _mutex;
    // Guarded by _mutex.
    std::string _stamp;  // of the files that were read last
    Poco::Net::Context::Ptr _context;
};

}  // namespace kel::tls
