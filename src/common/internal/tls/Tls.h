#pragma once

#include <Poco/Net/StreamSocket.h>

#include <atomic>
#include <chrono>
#include <string>

// What the library itself uses of TLS, beside the public header (../../Tls.h). Both are implemented
// by Tls_openssl.cpp, and by Tls_none.cpp for a library without TLS; CMake compiles one of the two.
namespace kel::tls {

/// Whether the library was built with TLS.
bool available() noexcept;

/// Prepares OpenSSL for this library. To be called before anything uses OpenSSL, the MQTT library
/// included. Repeatable. Without TLS it does nothing.
void prepare();

/// The longest time that a handshake may take, however slowly the peer sends: 10 s. Tests shorten
/// it.
std::atomic<std::chrono::milliseconds>& handshakeTime();

/// A socket for one HTTPS connection to `host`, not connected yet. Its first read or write, or
/// shakeHands(), makes the handshake, which succeeds only if the certificate fits: issued by an
/// authority that "openSSL.client.*" names, in its time, for `host`, not revoked. Once connected it
/// can be cut off by shutdown() from any thread, in the handshake too.
/// @throws Poco::Net::SSLException  a file named there is missing or unusable; the text names it.
/// Without TLS: @throws Poco::UnknownURISchemeException.
Poco::Net::StreamSocket clientSocket(const std::string& host);

/// Makes the handshake of a connected socket that clientSocket() has made. Does nothing to another.
/// @throws Poco::Net::SSLException  with the reason in words.
void shakeHands(const Poco::Net::StreamSocket& socket);

/// How an MQTT connection is protected. Empty strings stand for "none".
struct MqttSecurity {
    std::string authorities;  // PEM file or folder; empty: the system's
    std::string certificate;  // PEM file, the client's own, with its chain
    std::string key;          // PEM file; empty: in the certificate's
    std::string passphrase;
    bool checkServerName = true;
};

/// The authorities that the system trusts as a PEM file, for the MQTT library, which reads files
/// only. Empty where OpenSSL itself knows the system's file. On Windows, where a store has them,
/// they are written to a file among the application's data; again where the store has changed.
/// @throws Poco::Net::SSLException  the store cannot be read.
/// @throws std::system_error  that file cannot be written.
std::string systemAuthoritiesFile();

/// Finds out why a connection to the broker fails, since the MQTT library only says that it does:
/// makes one with the same settings and ends it. Takes little more than 10 s at the longest.
/// @return the reason in words, with the file's name where a file is at fault; empty if nothing is
///         wrong any more.
std::string explainFailure(const MqttSecurity& security, const std::string& host,
                           unsigned short port);

}  // namespace kel::tls
