#pragma once

#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <Poco/Timespan.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "BodyFraming.h"
#include "ServerState.h"

namespace kel {

/// A connection as POCO's parser gets to see it: one checked request at a time, each with an end.
/// It stands in front of the accepted socket, plain or TLS, and keeps the time limits of
/// HttpLimits.
///
/// Threads: the connection's own, but for closeIfOverdue(), closeIfIdle() and abort(), which any
/// other may call while the object lives.
class GuardedSocket : public Poco::Net::StreamSocketImpl {
public:
    using Clock = std::chrono::steady_clock;

    GuardedSocket(const Poco::Net::StreamSocket& accepted, std::shared_ptr<ServerState> state);

    /// Waits for a request and checks its head, which the next receiveBytes() hands out.
    /// @param idle  the longest wait for its first byte.
    /// @return false if none came: idle for too long, closed by the peer, or the server stopped.
    /// @throws Poco::Net::MessageException  to be refused; its code is the status to answer with.
    bool awaitHead(std::chrono::milliseconds idle);

    /// Whether all of the request's body has been handed out.
    bool bodyComplete() const noexcept { return _framing.complete(); }

    /// Status with which the request's body was refused while it was read; 0 if it was not.
    int refusedBody() const noexcept { return _refusedBody; }

    /// Whether sending failed: the peer has closed the connection, or took nothing for too long.
    bool sendingFailed() const noexcept { return _sendingFailed; }

    /// From now on everything passes as it is: the connection no longer speaks HTTP.
    void passThrough();

    /// Says that nothing more will be sent, and takes in what the peer still sends for a moment:
    /// closing with bytes unread could cost the peer the reply.
    void linger() noexcept;

    /// Between two requests the server may close the connection at any time.
    void setAnswering(bool answering) noexcept { _answering = answering; }

    void closeIfOverdue(Clock::time_point now) noexcept;
    void closeIfIdle() noexcept;
    void abort() noexcept;

    // As POCO's parser, the host's handler and a WebSocket use it.
    using StreamSocketImpl::receiveBytes;
    using StreamSocketImpl::sendBytes;
    using ShutdownResult = decltype(std::declval<Poco::Net::SocketImpl&>().shutdown());
    using ShutdownSendResult = decltype(std::declval<Poco::Net::SocketImpl&>().shutdownSend());
    int receiveBytes(void* buffer, int length, int flags = 0) override;
    int sendBytes(const void* buffer, int length, int flags = 0) override;
    void close() override;
    ShutdownResult shutdown() override;
    ShutdownSendResult shutdownSend() override;
    int available() override;
    bool poll(const Poco::Timespan& timeout, int mode) override;
    void setReceiveTimeout(const Poco::Timespan& timeout) override;
    Poco::Timespan getReceiveTimeout() override;
    Poco::Net::SocketAddress address() override;
    Poco::Net::SocketAddress peerAddress() override;
    void setBlocking(bool flag) override;
    bool getBlocking() const override;
    bool secure() const override;

protected:
    ~GuardedSocket() override;

private:
    // How long one wait for the peer may take: `normally`, or `whenCrowded` if that is shorter.
    struct Patience {
        Clock::time_point since;
        std::chrono::milliseconds normally;
        std::chrono::milliseconds whenCrowded;
    };

    void prepare();
    void forgetRequest();
    void lookOut(Clock::time_point since);
    void readHead();
    bool fillBuffer(const Patience& patience);
    bool findHeadEnd(std::size_t& searched);
    int handOut(void* buffer, std::size_t length, std::size_t end);
    int receiveBody(char* buffer, int length);
    int awaitBody(char* buffer, int length);
    int receiveBlock(char* buffer, int length, const Patience& patience);
    void sendBlock(const char* bytes, int length);
    Clock::duration slowestTime(std::int64_t bytes) const noexcept;
    bool over(const Patience& patience) const noexcept;
    Poco::Net::SocketImpl& inner() const { return *_inner.impl(); }

    Poco::Net::StreamSocket _inner;
    const std::shared_ptr<ServerState> _state;

    // Set at construction.
    Poco::Net::SocketAddress _address;
    std::optional<Poco::Net::SocketAddress> _peerAddress;  // none where the client has gone

    // The connection's own thread only.
    Poco::Timespan _receiveTimeout{60, 0};
    std::string _buffer;  // received and not yet handed out, from _begin on
    std::size_t _begin = 0;
    std::size_t _headEnd = 0;  // of the present request, in _buffer
    BodyFraming _framing;
    std::int64_t _bodyReceived = 0;
    std::int64_t _sent = 0;
    Clock::duration _bodyWaited{0};
    Clock::duration _sendWaited{0};
    int _refusedBody = 0;
    bool _sendingFailed = false;
    bool _passThrough = false;
    bool _asksAtOnce = false;        // its last request came right after the reply before
    Clock::time_point _lookOutFrom;  // for the next one

    std::atomic<bool> _answering{false};
    std::atomic<Clock::rep> _cutOff{0};  // when a blocking call has taken too long; 0: none runs
    std::mutex _closing;                 // one close() or abort() at a time
};

}  // namespace kel
