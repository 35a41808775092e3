#include "Reply.h"

#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/FileStream.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/NumberFormatter.h>
#include <Poco/StreamCopier.h>

#include <algorithm>

namespace kel {

ReplyBuffer::ReplyBuffer(GuardedSocket& socket) : _socket(socket) {
    setp(_area, _area + kArea);
}

void ReplyBuffer::beginBody(Body body, std::int64_t length) {
    collect();
    _inBody = true;
    _body = body;
    _left = length;
}

bool ReplyBuffer::finish() {
    collect();
    if (_body == Body::kChunked) _wire += "0\r\n\r\n";
    send();
    return _body != Body::kUntilClose && (_body != Body::kLength || _left == 0);
}

ReplyBuffer::int_type ReplyBuffer::overflow(int_type byte) {
    collect();
    if (_inBody) send();
    if (traits_type::eq_int_type(byte, traits_type::eof())) return traits_type::not_eof(byte);
    *pptr() = traits_type::to_char_type(byte);
    pbump(1);
    return byte;
}

int ReplyBuffer::sync() {
    collect();
    if (_inBody) send();
    return 0;
}

// Moves what was written since the last time to the wire's text, framed as the body asks for.
void ReplyBuffer::collect() {
    auto count = static_cast<std::size_t>(pptr() - pbase());
    setp(_area, _area + kArea);
    if (_inBody && _body == Body::kNone) count = 0;
    if (_inBody && _body == Body::kLength) {
        count = static_cast<std::size_t>(std::min(_left, static_cast<std::int64_t>(count)));
        _left -= static_cast<std::int64_t>(count);
    }
    if (count == 0) return;
    const bool chunk = _inBody && _body == Body::kChunked;
    if (chunk) _wire.append(Poco::NumberFormatter::formatHex(count)).append("\r\n");
    _wire.append(_area, count);
    if (chunk) _wire += "\r\n";
}

void ReplyBuffer::send() {
    if (!_wire.empty()) _socket.sendBytes(_wire.data(), static_cast<int>(_wire.size()));
    _wire.clear();
}

Reply::Reply(Poco::Net::HTTPServerSession& session, GuardedSocket& socket)
    : HTTPServerResponseImpl(session), _socket(socket), _buffer(socket), _stream(&_buffer) {}

void Reply::setRequest(const Poco::Net::HTTPServerRequest& request) {
    _request = &request;
}

bool Reply::finish() {
    try {
        return _sent && _buffer.finish() && getKeepAlive() && !_socket.sendingFailed();
    } catch (const Poco::Exception&) {
        return false;  // the client has closed the connection
    }
}

void Reply::correct() {
    if (getStatus() != HTTP_OK && getReason() == HTTP_REASON_OK) {
        setReason(getReasonForStatus(getStatus()));
    }
    if (getVersion() == HTTP_1_0 && getChunkedTransferEncoding()) {
        setChunkedTransferEncoding(false);
        setKeepAlive(false);
    }
}

ReplyBuffer::Body Reply::bodyKind() const {
    const bool none = getStatus() < 200 || getStatus() == HTTP_NO_CONTENT ||
                      getStatus() == HTTP_NOT_MODIFIED ||
                      (_request && _request->getMethod() == Poco::Net::HTTPRequest::HTTP_HEAD);
    if (none) return ReplyBuffer::Body::kNone;
    if (getChunkedTransferEncoding()) return ReplyBuffer::Body::kChunked;
    return hasContentLength() ? ReplyBuffer::Body::kLength : ReplyBuffer::Body::kUntilClose;
}

std::ostream& Reply::send() {
    if (_sent) throw Poco::IllegalStateException("the reply has been sent");
    correct();
    const ReplyBuffer::Body body = bodyKind();
    if (body == ReplyBuffer::Body::kUntilClose) setKeepAlive(false);
    write(_stream);
    _buffer.beginBody(body, hasContentLength() ? getContentLength64() : 0);
    _sent = true;
    if (getStatus() == HTTP_SWITCHING_PROTOCOLS) {
        _stream.flush();
        _socket.passThrough();
    }
    return _stream;
}

void Reply::sendFile(const std::string& path, const std::string& mediaType) {
    const Poco::File file(path);
    set("Last-Modified",
        Poco::DateTimeFormatter::format(file.getLastModified(), Poco::DateTimeFormat::HTTP_FORMAT));
    setContentLength64(static_cast<Poco::Int64>(file.getSize()));
    setContentType(mediaType);
    setChunkedTransferEncoding(false);
    Poco::FileInputStream content(path);
    if (!content.good()) throw Poco::OpenFileException(path);
    send();
    if (bodyKind() != ReplyBuffer::Body::kNone) Poco::StreamCopier::copyStream(content, _stream);
}

void Reply::sendBuffer(const void* bytes, std::size_t length) {
    setContentLength64(static_cast<Poco::Int64>(length));
    setChunkedTransferEncoding(false);
    send().write(static_cast<const char*>(bytes), static_cast<std::streamsize>(length));
}

void Reply::redirect(const std::string& uri, HTTPStatus status) {
    setContentLength(0);
    setChunkedTransferEncoding(false);
    setStatusAndReason(status);
    set("Location", uri);
    send();
}

}  // namespace kel
