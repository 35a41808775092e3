#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>

#include <chrono>
#include <functional>
#include <memory>

#include "Export.h"
#include "HttpLimits.h"
#include "HttpStatistics.h"

namespace kel {

/// One callback behind an HTTP server: it gets every request, whatever the method and the path.
///
/// Connections run on threads of the server's own, one each, started as they are needed. `params`
/// say how many there are, how many connections may wait for one, and how long a connection may be
/// idle: 16, 64, 60 s before its first request and 15 s between requests unless they are changed.
/// A connection in excess is answered with status 503 and closed. While connections wait, idle ones
/// are closed sooner. HttpLimits says what one client may cost beyond that.
///
/// A request is checked before the callback sees it. One whose end could be understood in two ways
/// (Content-Length twice or together with Transfer-Encoding, another encoding than "chunked",
/// malformed chunks, trailers, a blank before a colon, continued field lines, bare line feeds), or
/// that exceeds a limit, is answered with the status 400, 408, 431, 501 or 505, and the connection
/// is closed.
///
/// The callback runs on many threads at once. Where it sends nothing, the client gets no reply and
/// its connection is closed. A Poco::Exception out of it is answered with status 500 if nothing was
/// sent before; after any other exception the connection is closed. Both are reported to
/// Poco::ErrorHandler. A connection whose request body was not read to its end is closed after the
/// reply. A reply whose head gives no length and is not chunked ends with its connection. A small
/// reply is sent with one write, when the callback returns or flushes its stream. A status set
/// without a reason phrase gets its own. What the callback captured is destroyed with the
/// server or, if that is later, with its last connection.
/// Threads: any, also from the callback. At the end of the process requests in progress get up to
/// 10 s to finish; idle connections are closed.
class KEL_API HttpServer {
public:
    /// Answers one request; called on the thread of its connection.
    using Callback =
        std::function<void(Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse&)>;

    /// @param socket    bound and listening; nothing is accepted before start().
    /// @param params    shared with the caller, not null, not changed.
    /// @param callback  if it is empty, every request is answered with status 500.
    static std::shared_ptr<HttpServer> createInstance(
        const Poco::Net::ServerSocket& socket, Poco::AutoPtr<Poco::Net::HTTPServerParams> params,
        Callback callback);

    /// As stop().
    ~HttpServer();

    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Accepts connections from now on; after a stop() anew. The socket then listens with a backlog
    /// of 64 connections, whatever it had before; those that it had not accepted at the stop have
    /// been reset.
    /// @throws Poco::IllegalStateException  it does already.
    void start();

    /// Accepts no further connection, and closes those without a request in progress; returns
    /// within 250 ms. It does not wait for requests in progress: each is answered, and its
    /// connection closed then. The socket listens no more, so that clients are turned away also
    /// while the host holds it; where a system cannot do that (Windows) the socket is closed, and
    /// a new start needs a new one. Repeatable.
    void stop();

    /// As stop(), and waits for the requests in progress, but for one that calls this itself.
    /// @param patience  the longest wait, a day at most; what is not over by then goes on as after
    ///        stop().
    /// @return whether all had ended.
    bool stop(std::chrono::milliseconds patience);

    /// Whether it accepts connections.
    bool running() const;

    /// The server's numbers since the last start(); also after stop().
    HttpStatistics statistics() const;

private:
    struct Inside;

    HttpServer(const Poco::Net::ServerSocket& socket,
               Poco::AutoPtr<Poco::Net::HTTPServerParams> params, Callback callback);

    const std::unique_ptr<Inside> _inside;
};

/// A listening socket for WebApiBasic::start() and HttpServer, whose port no other process can
/// listen on meanwhile. A port whose last owner has just ended can be had at once.
/// @param address  to bind; port 0 takes a free one.
/// @param backlog  connections that may wait to be accepted.
/// @throws Poco::Net::NetException  the address cannot be bound, because the port is taken for
///         example.
/// Threads: any.
KEL_API Poco::Net::ServerSocket serverSocket(const Poco::Net::SocketAddress& address,
                                             int backlog = 64);

}  // namespace kel
