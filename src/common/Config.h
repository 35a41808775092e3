#pragma once

#include <Poco/Util/JSONConfiguration.h>

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
/// Never throws: a malformed or unreadable file is one error line in the log, the store and the
/// file stay as they were. Threads: the start-up thread, after loadLogging().
KEL_API void loadConfig();

/// Writes the store to the file that loadConfig() found, in one step: a reader sees the old file
/// or the new one, and a failure leaves the old one. On POSIX only the owner can read it.
/// Before loadConfig() it does nothing. Never throws: a failure is one error line in the log.
/// Threads: the start-up thread.
KEL_API void saveConfig();

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
