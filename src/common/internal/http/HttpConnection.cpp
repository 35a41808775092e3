#include "HttpConnection.h"

#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Exception.h>
#include <Poco/Net/HTTPServerRequestImpl.h>
#include <Poco/Net/NetException.h>
#include <Poco/Timestamp.h>

#include <optional>

namespace kel {

namespace {

using Poco::Net::HTTPResponse;
using Poco::Net::HTTPServerParams;
using Poco::Net::HTTPServerRequest;

}  // namespace

HttpConnection::HttpConnection(const Poco::Net::StreamSocket& accepted,
                               const std::shared_ptr<ServerState>& state,
                               Poco::AutoPtr<HTTPServerParams> params, const Callback& callback)
    : _state(state),
      _params(params),
      _callback(callback),
      _socket(new GuardedSocket(accepted, state)),
      _session(Poco::Net::StreamSocket(_socket.duplicate()), params) {}

void HttpConnection::serve() {
    while (awaitRequest() && answer()) continue;
}

// @return false if there is none to answer.
bool HttpConnection::awaitRequest() {
    _socket->setAnswering(false);
    const bool first = _requests == 0;
    const Poco::Timespan idle = first ? _params->getTimeout() : _params->getKeepAliveTimeout();
    try {
        if (!_socket->awaitHead(std::chrono::milliseconds(idle.totalMilliseconds()))) return false;
    } catch (const Poco::Net::MessageException& unfit) {
        refuse(unfit.code());
        return false;
    }
    _socket->setAnswering(true);
    return !_state->stopping;  // looked at after that, so that a stop sees the one or the other
}

// @return whether another request may follow.
bool HttpConnection::answer() {
    Reply reply(_session, *_socket);
    std::optional<Poco::Net::HTTPServerRequestImpl> request;
    try {
        request.emplace(reply, _session, _params.get());
    } catch (const Poco::Exception&) {
        refuse(HTTPResponse::HTTP_BAD_REQUEST);  // POCO has limits of its own
        return false;
    }
    ++_requests;
    _state->countRequest();
    prepare(reply, *request);
    call(reply, *request);
    return conclude(reply);
}

bool HttpConnection::conclude(Reply& reply) {
    const bool reusable = reply.finish();
    if (reply.sent()) _state->countReply(reply.getStatus());
    if (_session.socket().impl() != _socket.get()) return false;  // detached; another's to close
    if (!reply.sent() && _socket->refusedBody() != 0) sendError(_socket->refusedBody());
    if (!_socket->bodyComplete()) {
        _socket->linger();
        return false;
    }
    return reusable;
}

void HttpConnection::refuse(int status) {
    if (_state->stopping) return;
    _state->countRequest();
    sendError(status);
}

void HttpConnection::prepare(Reply& reply, const HTTPServerRequest& request) {
    const int limit = _params->getMaxKeepAliveRequests();
    const bool last = _state->stopping || (limit > 0 && _requests >= limit);
    reply.setRequest(request);
    reply.set("Date", date());
    reply.setVersion(request.getVersion());
    reply.setKeepAlive(!last && _params->getKeepAlive() && request.getKeepAlive() &&
                       !request.hasToken("Connection", "close"));
    const std::string& software = _params->getSoftwareVersion();
    if (!software.empty()) reply.set("Server", software);
}

void HttpConnection::call(Reply& reply, HTTPServerRequest& request) {
    try {
        if (!_callback) throw Poco::NullPointerException("request handle callabck is empty");
        if (request.getExpectContinue()) reply.sendContinue();
        _callback(request, reply);
    } catch (const Poco::Exception&) {
        const int refused = _socket->refusedBody();
        if (!reply.sent()) {
            sendError(refused != 0 ? refused : HTTPResponse::HTTP_INTERNAL_SERVER_ERROR);
        }
        conclude(reply);
        throw;
    } catch (...) {
        conclude(reply);
        throw;
    }
}

void HttpConnection::sendError(int status) {
    const std::string& reason =
        HTTPResponse::getReasonForStatus(static_cast<HTTPResponse::HTTPStatus>(status));
    const std::string reply =
        "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\nConnection: Close\r\n\r\n";
    _state->countReply(status);
    try {
        _socket->sendBytes(reply.data(), static_cast<int>(reply.size()));
        _socket->linger();
    } catch (const Poco::Exception&) {
        // The client has closed the connection.
    }
}

// Formatting it costs as much as the rest of a small reply.
const std::string& HttpConnection::date() {
    const Poco::Timestamp now;
    const std::chrono::seconds second(now.epochTime());
    if (second != _dateSecond) {
        _date = Poco::DateTimeFormatter::format(now, Poco::DateTimeFormat::HTTP_FORMAT);
        _dateSecond = second;
    }
    return _date;
}

}  // namespace kel
