#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>

#include <string>

#include "Export.h"

namespace Poco::Net {
class Context;  // who uses one includes <Poco/Net/Context.h>, of POCO's NetSSL
}

namespace kel {

/// A listening socket that speaks TLS, for WebApiBasic::start() and HttpServer. It uses the
/// settings of makeServerContext(). Files that have changed are in use from the next connection on;
/// where they do not load (a renewal that is half done), a line says so and the previous ones stay
/// in use. The handshake takes place on the connection's own thread and may take 10 s. Where it
/// fails, a warning in the log names the peer and the reason, and the connection is closed. TLS
/// below 1.2 is refused.
/// @param address  to bind; port 0 takes a free one.
/// @throws Poco::Net::SSLException  a file is missing or unusable; the text names the file.
/// @throws Poco::InvalidArgumentException  a setting that cannot be used; the text names the key.
/// @throws Poco::NotImplementedException  the library was built without TLS.
/// @throws Poco::Net::NetException  the address cannot be bound.
/// Threads: any.
KEL_API Poco::Net::ServerSocket secureServerSocket(const Poco::Net::SocketAddress& address,
                                                   int backlog = 64);

/// The settings "openSSL.server.*" of configInstance() as a context of POCO's, with the files as
/// they are now. ${application.configDir} (with a final separator) and ${application.name} are
/// filled in where the host has not set these keys. The defaults of initSSLOption() that are not
/// safe are used, and a warning names each. Errors as secureServerSocket(). Threads: any.
KEL_API Poco::AutoPtr<Poco::Net::Context> makeServerContext();

/// The certificate file that "openSSL.server.*" names, with references filled in; empty if there is
/// none. Every configuration file names one from its first start on: whether that file exists tells
/// whether HTTPS is wanted. A library without TLS knows it too.
/// @throws Poco::InvalidArgumentException  the setting cannot be read; the text names the key.
/// Threads: any.
KEL_API std::string serverCertificateFile();

}  // namespace kel
