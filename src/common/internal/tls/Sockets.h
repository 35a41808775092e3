#pragma once

#include <Poco/Net/SecureStreamSocketImpl.h>
#include <Poco/Net/ServerSocketImpl.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "Context.h"

namespace kel::tls {

/// One end of a TLS connection: POCO's class, and what it does wrong in the releases in use done
/// right. The first read or write makes the handshake.
/// Threads: one at a time; shutdown() may be called by any thread once it is connected.
class Connection : public Poco::Net::SecureStreamSocketImpl {
public:
    /// True also while OpenSSL keeps bytes that it has decrypted and nobody has read yet, of which
    /// the system knows nothing.
    bool poll(const Poco::Timespan& timeout, int mode) override;

    /// Cuts the connection off at once, also while another thread uses it, because it touches
    /// nothing but the TCP connection. (close() also sends TLS's closing record.)
    // POCO's operation returns void up to 1.14, and int from then on.
    auto shutdown() -> decltype(std::declval<Poco::Net::StreamSocketImpl&>().shutdown()) override;

    void close() override;
    int receiveBytes(void* buffer, int length, int flags = 0) override;
    int sendBytes(const void* buffer, int length, int flags = 0) override;

    /// Makes the handshake within handshakeTime(), unless it has been made.
    /// @throws Poco::Net::SSLException  with the reason in words, also where the time is up: a
    ///         caller that waits in slices would take a Poco::TimeoutException for the end of one.
    void shakeHandsOnce();

protected:
    using Plain = Poco::AutoPtr<Poco::Net::StreamSocketImpl>;

    /// @param peer  the peer's name, for messages.
    Connection(Plain plain, Poco::Net::Context::Ptr context, std::string peer);
    ~Connection() override;

    virtual void shakeHands();

private:
    void shakeHandsUntil(std::chrono::steady_clock::time_point deadline);

    Plain _plain;
    const std::string _peer;
    bool _ready = false;
};

/// The client's end.
class ClientConnection : public Connection {
public:
    ClientConnection(Poco::Net::Context::Ptr context, const std::string& host);

    int receiveBytes(void* buffer, int length, int flags = 0) override;
};

/// The server's end.
class ServedConnection : public Connection {
public:
    ServedConnection(Plain plain, Poco::Net::Context::Ptr context, std::string peer);

protected:
    void shakeHands() override;
};

/// A listening socket that accepts connections without waiting for their handshakes.
class SecureServerSocketImpl : public Poco::Net::ServerSocketImpl {
public:
    explicit SecureServerSocketImpl(std::shared_ptr<RenewedContext> context);

    Poco::Net::SocketImpl* acceptConnection(Poco::Net::SocketAddress& peer) override;
    bool secure() const override { return true; }

private:
    const std::shared_ptr<RenewedContext> _context;
};

}  // namespace kel::tls
