#pragma once

#include <Poco/Net/SecureStreamSocketImpl.h>
#include <Poco/Net/ServerSocketImpl.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "Context.h"

namespace kel::tls {

/// The longest that a handshake may take, however slowly the peer sends.
inline constexpr std::chrono::seconds kHandshakeTime(10);

/// One end of a TLS connection: POCO's, but for what it gets wrong in the releases in use. Used by
/// one thread at a time; shutdown() by any.
class Connection : public Poco::Net::SecureStreamSocketImpl {
public:
    /// Also when the last record held more than was asked for, which the system knows nothing of.
    bool poll(const Poco::Timespan& timeout, int mode) override;

    /// Cuts the connection off at once, while another thread uses it: nothing but the TCP
    /// connection is touched. (Closing says good-bye to the peer.)
    // void up to POCO 1.14, int from then on.
    auto shutdown() -> decltype(std::declval<Poco::Net::StreamSocketImpl&>().shutdown()) override;

    void close() override;

protected:
    using Plain = Poco::AutoPtr<Poco::Net::StreamSocketImpl>;

    Connection(Plain plain, Poco::Net::Context::Ptr context);
    ~Connection() override;

    /// Completes the handshake within kHandshakeTime.
    /// @throws Poco::Net::SSLException  the reason in words. Not a time-out, which callers that
    /// wait
    ///         in slices would take for the end of one.
    void shakeHands(const std::string& peer);

    Poco::Net::StreamSocketImpl& plain() { return *_plain; }

private:
    void shakeHandsUntil(std::chrono::steady_clock::time_point deadline);

    Plain _plain;
};

/// A client's. connect() returns after the handshake.
class ClientConnection : public Connection {
public:
    ClientConnection(Poco::Net::Context::Ptr context, const std::string& host);

    void connect(const Poco::Net::SocketAddress& address) override;
    void connect(const Poco::Net::SocketAddress& address, const Poco::Timespan& timeout) override;
    int receiveBytes(void* buffer, int length, int flags = 0) override;

private:
    template <typename Connect>
    void connectWith(Connect&& connect);

    const std::string _host;
};

/// A server's. The first read or write makes the handshake.
class ServedConnection : public Connection {
public:
    ServedConnection(Plain plain, Poco::Net::Context::Ptr context, std::string peer);

    int receiveBytes(void* buffer, int length, int flags = 0) override;
    int sendBytes(const void* buffer, int length, int flags = 0) override;

private:
    void shakeHandsOnce();

    const std::string _peer;
    bool _ready = false;
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
