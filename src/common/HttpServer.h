#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>

#include "Export.h"
#include "HttpStatistics.h"

namespace kel {

/// One callback behind an HTTP server: it gets every request, whatever the method and the path.
/// Connections run on Poco::ThreadPool::defaultPool(), which is enlarged where fewer than 16 of its
/// threads are free when a server is made.
///
/// The callback runs on many threads at once. Where it sends nothing, the client gets no reply and
/// its connection is closed. A Poco::Exception out of it is answered with status 500 if nothing was
/// sent before; after any other exception the connection is closed. A connection whose request body
/// was not read to its end is closed after the reply. What the callback captured goes with the
/// server or, if that is later, with its last connection.
/// Threads: any, also from the callback. At the end of the process requests in progress get up to
/// 10 s to finish; idle connections are closed.
class KEL_API HttpServer {
public:
    using Callback =
        std::function<void(Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse&)>;

    /// @param socket    bound and listening; nothing is accepted before start().
    /// @param params    shared with the caller, not null; its thread idle time becomes 1 s at most.
    /// @param callback  if it is empty, every request is answered with status 500.
    static std::shared_ptr<HttpServer> createInstance(
        const Poco::Net::ServerSocket& socket, Poco::AutoPtr<Poco::Net::HTTPServerParams> params,
        Callback callback);

    ~HttpServer();

    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Accepts connections from now on. Once only in a server's life.
    void start();

    /// Accepts no further connection; returns within 250 ms. It does not wait for requests in
    /// progress, and a connection that is open is still served until it has been idle for the
    /// keep-alive time-out (15 s unless `params` say otherwise). Repeatable.
    void stop();

    /// As stop(), and waits for the requests in progress, but for one that calls this itself.
    /// @param patience  the longest wait; what is not over by then goes on as after stop().
    /// @return whether all had ended.
    bool stop(std::chrono::milliseconds patience);

    /// The server's numbers since it was made; also after stop().
    HttpStatistics statistics() const;

private:
    class RequestHandlerFactory;
    class RequestHandler;
    struct Process;

    HttpServer(const Poco::Net::ServerSocket& socket,
               Poco::AutoPtr<Poco::Net::HTTPServerParams> params, Callback callback);

    static Process& process();
    static void stopAll();

    struct Counters;
    const std::shared_ptr<Counters> _counters;
    Poco::Net::HTTPServer* _server;  // started and stopped under _mutex
    std::mutex _mutex;
};

}  // namespace kel
