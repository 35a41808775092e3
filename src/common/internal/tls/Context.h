#pragma once

#include <Poco/Exception.h>
#include <Poco/Net/Context.h>

#include <mutex>
#include <string>

#include "Settings.h"

namespace kel::tls {

/// A context of POCO's with what POCO does not offer: TLS 1.2 at least, revocation lists,
/// passphrases from the settings, and one clear reason for everything that does not load.
/// @param serverName  the server that a client's context expects; empty for a server's context.
/// @throws Poco::Net::SSLException  a file is missing or unusable; the text names it.
/// @throws Poco::InvalidArgumentException  a setting cannot be used; the text names its key.
Poco::Net::Context::Ptr makeContext(const Settings& settings, const std::string& serverName = "");

/// Forgets what earlier handshakes on this thread left behind. OpenSSL keeps a queue of errors for
/// each thread, POCO leaves some of them there, and the next failure would be explained by them.
void beginTls() noexcept;

/// The reason of the failure that threw `exc`, in words. To be called on the thread that caught it.
std::string failureReason(const Poco::Exception& exc);

/// A server's context, which is made anew when its files have changed. Threads: any.
class RenewedContext {
public:
    /// Throws as makeContext().
    explicit RenewedContext(Settings settings);

    /// The context of the files as they are now. Where they do not load, which is logged once, it
    /// is the previous one.
    Poco::Net::Context::Ptr current();

private:
    const Settings _settings;
    std::mutex _mutex;
    // Guarded by _mutex.
    std::string _stamp;  // of the files that were read last
    Poco::Net::Context::Ptr _context;
};

}  // namespace kel::tls
