#pragma once

#include <Poco/Net/SecureStreamSocketImpl.h>
#include <Poco/Net/ServerSocketImpl.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "Context.h"

namespace kel::tls {

/// One end of a TLS connection: POCO's, but for what it gets wrong in the releases in use. The
/// first read or write makes the handshake. Used by one thread at a time; shutdown() by any once it
/// is connected.
class Connection : public Poco::Net::SecureStreamSocketImpl {
public:
    /// Also when the last record held more than was asked for, which the system knows nothing of.
    bool poll(const Poco::Timespan& timeout, int mode) override;

    /// Cuts the connection off at once, while another thread uses it: nothing but the TCP
    /// connection is touched. (Closing says good-bye to the peer.)
    // void up to POCO 1.14, int from then on.
    auto shutdown() -> decltype(std::declval<Poco::Net::StreamSocketImpl&>().shutdown()) override;

    void close() override;
    int receiveBytes(void* buffer, int length, int flags = 0) override;
    int sendBytes(const void* buffer, int length, int flags = 0) override;

    /// Completes the handshake within handshakeTime(), unless that is done.
    /// @throws Poco::Net::SSLException  the reason in words. Not a time-out, which callers that
    ///         wait in slices would take for the end of one.
    void shakeHandsOnce();

protected:
    using Plain = Poco::AutoPtr<Poco::Net::StreamSocketImpl>;

    /// @param peer  its name, for messages.
    Connection(Plain plain, Poco::Net::Context::Ptr context, std::string peer);
    ~Connection() override;

    virtual void shakeHands();

private:
    void shakeHandsUntil(std::chrono::steady_clock::time_point deadline);

    Plain _plain;
    const std::string _peer;
    bool _ready = false;
};

/// A client's.
class ClientConnection : public Connection {
public:
    ClientConnection(Poco::Net::Context::Ptr context, const std::string& host);

    int receiveBytes(void* buffer, int length, int flags = 0) override;
};

/// A server's.
class ServedConnection : public Connection {
public:
    ServedConnection(Plain plain, Poco::Net::Context::Ptr context, std::string peer);

protected:
    void shakeHands() override;
};

/// Listens; accepts without waiting for the handshake.
class SecureServerSocketImpl : public Poco::Net::ServerSocketImpl {
public:
    explicit SecureServerSocketImpl(std::shared_ptr<RenewedContext> context);

    Poco::Net::SocketImpl* acceptConnection(Poco::Net::SocketAddress& peer) override;
    bool secure() const override { return true; }

private:
    const std::shared_ptr<RenewedContext> _context;
};

}  // namespace kel::tls
