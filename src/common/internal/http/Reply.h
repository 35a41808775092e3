#pragma once

#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponseImpl.h>
#include <Poco/Net/HTTPServerSession.h>

#include <cstdint>
#include <ostream>
#include <streambuf>
#include <string>

#include "GuardedSocket.h"

namespace kel {

/// A reply on its way: head and body are collected and sent with one write, or with as many as a
/// long body and the handler's flushes need. Threads: one at a time.
class ReplyBuffer : public std::streambuf {
public:
    enum class Body { kNone, kChunked, kLength, kUntilClose };

    explicit ReplyBuffer(GuardedSocket& socket);

    /// What was written so far is the head; what follows is the body.
    /// @param length  of a body of kind kLength, in bytes; what is written beyond it is dropped.
    void beginBody(Body body, std::int64_t length);

    /// Sends what is left.
    /// @return whether the client can tell that it has the whole reply.
    bool finish();

protected:
    int_type overflow(int_type byte) override;
    int sync() override;

private:
    void collect();
    void send();

    static constexpr std::size_t kArea = 8 * 1024;

    GuardedSocket& _socket;
    bool _inBody = false;
    Body _body = Body::kNone;
    std::int64_t _left = 0;
    std::string _wire;  // as it will be sent
    char _area[kArea];
};

/// POCO's response with a faster way to the wire. It corrects what POCO lets pass: a reason phrase
/// that does not fit the status, and chunks for a client of HTTP/1.0.
class Reply : public Poco::Net::HTTPServerResponseImpl {
public:
    Reply(Poco::Net::HTTPServerSession& session, GuardedSocket& socket);

    /// The request that is answered; before anything is sent.
    void setRequest(const Poco::Net::HTTPServerRequest& request);

    /// Completes the reply on the wire, if there is any.
    /// @return whether the connection can take another request.
    bool finish();

    std::ostream& send() override;
    void sendFile(const std::string& path, const std::string& mediaType) override;
    void sendBuffer(const void* bytes, std::size_t length) override;
    void redirect(const std::string& uri, HTTPStatus status) override;
    bool sent() const override { return _sent; }

private:
    void correct();
    ReplyBuffer::Body bodyKind() const;

    GuardedSocket& _socket;
    ReplyBuffer _buffer;
    std::ostream _stream;
    const Poco::Net::HTTPServerRequest* _request = nullptr;
    bool _sent = false;
};

}  // namespace kel
