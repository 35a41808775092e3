#include "Sockets.h"

#include <Poco/Net/IPAddress.h>
#include <Poco/Net/SSLException.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/Socket.h>

#include <utility>

#include "../log/UnitLog.h"

namespace kel::tls {

using Poco::Timespan;
using Poco::Net::Context;
using Poco::Net::SecureStreamSocket;
using Poco::Net::Socket;
using Poco::Net::SocketAddress;
using Poco::Net::SSLException;
using Poco::Net::StreamSocketImpl;
using Clock = std::chrono::steady_clock;

namespace {

constexpr UnitLog log("src/common/Tls");

Timespan timeUntil(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
    return Timespan(left > 0 ? left : 0);
}

}  // namespace

Connection::Connection(Plain plain, Context::Ptr context, std::string peer)
    : SecureStreamSocketImpl(plain.get(), std::move(context)),
      _plain(std::move(plain)),
      _peer(std::move(peer)) {}

// POCO's destructor closes, which sends TLS's closing record. It must not wait for a peer that
// reads nothing.
Connection::~Connection() {
    if (_plain->initialized()) logExceptions(log, [&] { _plain->setBlocking(false); });
}

void Connection::close() {
    if (_plain->initialized()) _plain->setBlocking(false);
    beginTls();
    SecureStreamSocketImpl::close();
}

bool Connection::poll(const Timespan& timeout, int mode) {
    const bool mayRead = (mode & Socket::SELECT_READ) != 0;
    return (mayRead && available() > 0) || SecureStreamSocketImpl::poll(timeout, mode);
}

auto Connection::shutdown() -> decltype(std::declval<StreamSocketImpl&>().shutdown()) {
    return _plain->shutdown();
}

int Connection::receiveBytes(void* buffer, int length, int flags) {
    shakeHandsOnce();
    return SecureStreamSocketImpl::receiveBytes(buffer, length, flags);
}

int Connection::sendBytes(const void* buffer, int length, int flags) {
    shakeHandsOnce();
    return SecureStreamSocketImpl::sendBytes(buffer, length, flags);
}

void Connection::shakeHandsOnce() {
    beginTls();
    if (_ready) return;
    shakeHands();
    _ready = true;
}

void Connection::shakeHands() {
    try {
        _plain->setBlocking(false);
        shakeHandsUntil(Clock::now() + handshakeTime().load());
        _plain->setBlocking(true);
    } catch (const Poco::Exception& exc) {
        throw SSLException("TLS handshake with " + _peer, failureReason(exc));
    }
}

// POCO would give the whole time to each read of a handshake, so that a slow peer could make it
// last without end.
void Connection::shakeHandsUntil(Clock::time_point deadline) {
    for (int done = completeHandshake(); done != 1; done = completeHandshake()) {
        if (done == 0) throw Poco::Net::SSLConnectionUnexpectedlyClosedException();
        const int mode = done == SecureStreamSocket::ERR_SSL_WANT_WRITE ? Socket::SELECT_WRITE
                                                                        : Socket::SELECT_READ;
        if (!_plain->poll(timeUntil(deadline), mode)) throw Poco::TimeoutException();
    }
}

ClientConnection::ClientConnection(Context::Ptr context, const std::string& host)
    : Connection(Plain(new StreamSocketImpl), std::move(context), host) {
    setLazyHandshake(true);
    // The server is told by which name it is asked; an address must not be told as a name.
    Poco::Net::IPAddress address;
    if (!Poco::Net::IPAddress::tryParse(host, address)) setPeerHostName(host);
}

// POCO up to 1.14 would wait twice as long as the time-out says.
int ClientConnection::receiveBytes(void* buffer, int length, int flags) {
    shakeHandsOnce();
    const Timespan timeout = getReceiveTimeout();
    if (timeout.totalMicroseconds() > 0 && !poll(timeout, Socket::SELECT_READ)) {
        throw Poco::TimeoutException();
    }
    return Connection::receiveBytes(buffer, length, flags);
}

ServedConnection::ServedConnection(Plain plain, Context::Ptr context, std::string peer)
    : Connection(std::move(plain), std::move(context), std::move(peer)) {
    acceptSSL();
}

void ServedConnection::shakeHands() {
    try {
        Connection::shakeHands();
        if (context()->extendedCertificateVerificationEnabled()) verifyPeerCertificate();
    } catch (const Poco::Exception& exc) {
        log.warning(exceptionText(exc));
        throw;
    }
}

SecureServerSocketImpl::SecureServerSocketImpl(std::shared_ptr<RenewedContext> context)
    : _context(std::move(context)) {}

Poco::Net::SocketImpl* SecureServerSocketImpl::acceptConnection(SocketAddress& peer) {
    const Poco::AutoPtr<StreamSocketImpl> plain(
        static_cast<StreamSocketImpl*>(ServerSocketImpl::acceptConnection(peer)));
    return new ServedConnection(plain, _context->current(), peer.toString());
}

}  // namespace kel::tls
