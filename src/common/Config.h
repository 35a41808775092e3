#pragma once

#include <Poco/Util/JSONConfiguration.h>

#include <cstddef>
#include <string>

#include "Export.h"

namespace kel {

/// The process's settings, addressed by dotted keys ("http.port"). Created empty on first use and
/// never destroyed. Creation is safe from any thread; the store itself is POCO's: change settings
/// while only one thread uses it, read them from any thread afterwards.
KEL_API Poco::Util::JSONConfiguration& configInstance();

/// Loads `<configuration home>/kelhost/<executable>.json` into the store, replacing all of it. A
/// file that is missing or empty is written from the store instead, so defaults set before this
/// call become the first file. A file with content is never rewritten.
/// Never throws: a malformed or unreadable file is one error line in the log and an information
/// line that says why (lastConfigError()); the store and the file stay as they were.
/// Threads: the start-up thread, after loadLogging().
KEL_API void loadConfig();

/// Writes the store to the file that loadConfig() found, in one step: a reader sees the old file
/// or the new one, and a failure leaves the old one. On POSIX a new file is for its owner only, an
/// old one keeps owner and mode. A read-only file is refused. A file that nothing can be renamed
/// over, such as a mount point, is written in place: only there may a reader see half of it.
/// Before loadConfig() it does nothing. Never throws: a failure is one error line in the log.
/// Threads: the start-up thread; waits 2 s at the longest while another process saves.
KEL_API void saveConfig();

/// Adds to the store what it held just before the last loadConfig() and what the file lacks, and
/// saves the file if that is anything. So a new release's defaults get into an old file:
///     kel::initHttpOption();         // and the host's own defaults
///     kel::loadConfig();             // replaces them by an older release's file
///     kel::addMissingDefaults();
/// A value that the file has stays, null and values of another type included; arrays count as one
/// value. After a load that failed it does nothing. The values of initSSLOption() that are not safe
/// are not added (its cipher list, its passphrase, AcceptCertificateHandler): a file that lacks
/// them has TLS with the safe values that hold instead.
/// @return how many values were added; an information line names their keys.
/// Never throws: a failure is one error line in the log. Threads: the start-up thread.
KEL_API std::size_t addMissingDefaults();

/// Full path of the configuration file; "" before loadConfig(). Threads: any.
KEL_API std::string configPath();

/// Why the last loadConfig() or saveConfig() failed; "" if it did not. A malformed file comes with
/// line and column (in bytes), both from 1: "<path>:3:14: JSON Exception: ...". Threads: any.
KEL_API std::string lastConfigError();

/// Writes the defaults of the HTTP service into the store (memory only), overwriting what is
/// there: http.port 9528, http.sslport 443 (both kept as text), http.apiDebug true.
/// Call before loadConfig(). Threads: the start-up thread.
KEL_API void initHttpOption();

/// Writes the default of the RPC service: rpc.port 9527. As initHttpOption().
KEL_API void initRpcOption();

/// Writes the fourteen "openSSL.server." defaults that POCO's SSL manager reads. The references
/// ${application.configDir} and ${application.name} are stored as written; the host supplies the
/// two keys if it wants them expanded. As initHttpOption().
KEL_API void initSSLOption();

namespace http {
KEL_API extern const std::string kPort;      ///< "http.port"
KEL_API extern const std::string kSslPort;   ///< "http.sslport"
KEL_API extern const std::string kApiDebug;  ///< "http.apiDebug"
}  // namespace http

namespace rpc {
KEL_API extern const std::string kRpcPort;  ///< "rpc.port"
}  // namespace rpc

}  // namespace kel
