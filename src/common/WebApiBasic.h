#pragma once

#include <Poco/JSON/Object.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "Export.h"
#include "HttpStatistics.h"

namespace kel {

class HttpServer;

/// The process's web API: handlers by URL path, behind one HTTP server.
/// @code
///   auto api = kel::WebApiBasic::instance();
///   api->apiRegist("/index/api/half", {"GET"},
///                  [](auto&, auto& response, const auto& params, auto& result) {
///       const auto n = params.find("n");
///       int number = 0;
///       if (n == params.end() || !Poco::NumberParser::tryParse(n->second, number)) {
///           response.setStatus(Poco::Net::HTTPResponse::HTTP_BAD_REQUEST);
///           result.set("msg", "n is to be a number");
///           return;
///       }
///       result.set("half", number / 2);
///   });
///   api->start(kel::serverSocket({"127.0.0.1", 9528}));
/// @endcode
/// A path is matched exactly, letter case and a trailing slash included; the method is looked at
/// only where the route names some. An unknown path is answered with {"code": -1, "msg": "api not
/// found"} and status 200.
///
/// Errors: what a handler throws is logged; after a Poco::Exception the client gets status 500,
/// after any other its connection is closed without a reply. Nothing a client sends ends the
/// process.
/// Threads: all operations may be called from any thread, also from handlers and while requests are
/// served. Handlers run on many threads at once, and with no lock held.
class KEL_API WebApiBasic {
public:
    /// Query parameters, decoded. Of a name that occurs more than once the first value counts.
    using ApiParams = std::unordered_map<std::string, std::string>;

    /// Sends the reply itself. If it sends nothing, the connection is closed without a reply.
    using ApiHandler = std::function<void(Poco::Net::HTTPServerRequest&,
                                          Poco::Net::HTTPServerResponse&, const ApiParams&)>;

    /// Fills `result`, which is then sent as a chunked "application/json" reply. If it leaves
    /// `result` empty, it sends the reply itself. It may set the status.
    using ApiJsonHandler =
        std::function<void(Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse&,
                           const ApiParams&, Poco::JSON::Object& result)>;

    /// As ApiJsonHandler, with the request's body. It is not called for a body that is no JSON
    /// object or exceeds a limit of HttpLimits: that is logged, and the client gets status 500. A
    /// request without a length (neither Content-Length nor chunked) has an empty body.
    using ApiJsonBodyHandler = std::function<void(
        Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse&, const ApiParams&,
        Poco::JSON::Object& result, const Poco::JSON::Object& body)>;

    /// The process's only one.
    static std::shared_ptr<WebApiBasic> instance();

    ~WebApiBasic();

    WebApiBasic(const WebApiBasic&) = delete;
    WebApiBasic& operator=(const WebApiBasic&) = delete;

    /// Has `path` answered with {"code": 0, "msg": "success"}.
    void apiRegist(std::string path);

    /// Has `handler` called for `path`, replacing an earlier one; requests in progress finish with
    /// the handler they began with. The number of a lambda's parameters selects the overload; a
    /// std::bind expression or a variadic lambda, which fit all three, has to be named:
    /// `apiRegist(path, WebApiBasic::ApiHandler(...))`.
    void apiRegist(std::string path, ApiHandler handler);
    void apiRegist(std::string path, ApiJsonHandler handler);
    void apiRegist(std::string path, ApiJsonBodyHandler handler);

    /// Methods of a route, in capitals: {"GET", "HEAD"}.
    using Methods = std::vector<std::string>;

    /// As above, for requests with one of these methods. Others are answered with status 405, the
    /// methods under "Allow" and {"code": -1, "msg": "method not allowed"}; that is not logged.
    /// @throws Poco::InvalidArgumentException  `methods` is empty.
    void apiRegist(std::string path, Methods methods, ApiHandler handler);
    void apiRegist(std::string path, Methods methods, ApiJsonHandler handler);
    void apiRegist(std::string path, Methods methods, ApiJsonBodyHandler handler);

    /// Serves the registered routes on `socket`, and the two built-in ones "/" and
    /// "/index/api/getApiList", which send no reply unless the host registers its own afterwards.
    ///
    /// The server runs with POCO's default parameters: 16 connections are served at a time, 64 more
    /// wait, further ones are answered with status 503. HttpServer says how connections and
    /// requests are checked, HttpLimits what one client may cost.
    /// @throws Poco::LogicException  it is serving already; nothing changes.
    void start(const Poco::Net::ServerSocket& socket);

    /// As above, on each of `sockets`, for example one that speaks TLS and one on the loopback
    /// address that does not: HTTPServerRequest::secure() tells a handler which it was. Each has
    /// its own connections.
    /// @throws Poco::InvalidArgumentException  `sockets` is empty.
    void start(const std::vector<Poco::Net::ServerSocket>& sockets);

    /// Accepts no further connection, answers no further request and forgets every route; returns
    /// within 250 ms. Requests in progress are not waited for. Does nothing more when not serving.
    /// Afterwards routes can be registered and start() be called again.
    void stop();

    /// As stop(), and waits for the requests in progress, but for one that calls this itself.
    /// @param patience  the longest wait, a day at most; what is not over by then goes on as after
    ///        stop().
    /// @return whether all had ended.
    bool stop(std::chrono::milliseconds patience);

    /// The server's numbers since start(), of all sockets together; zeroes while not
    /// serving.
    HttpStatistics statistics();

private:
    WebApiBasic();

    static void apiNotFound(Poco::Net::HTTPServerResponse& response);
    static void apiSuccess(Poco::Net::HTTPServerResponse& response);
    static void bodyNotFound(Poco::Net::HTTPServerResponse& response);

    static ApiHandler plain(ApiJsonHandler handler);
    static ApiHandler plain(ApiJsonBodyHandler handler);

    template <typename Handler, typename... Body>
    static void answerJson(const Handler& handler, Poco::Net::HTTPServerRequest& request,
                           Poco::Net::HTTPServerResponse& response, const ApiParams& params,
                           const Body&... body);

    using Route = std::shared_ptr<const ApiHandler>;

    /// @return the route that was there before.
    Route store(std::string path, ApiHandler handler);
    void dispatch(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response);

    using Servers = std::vector<std::shared_ptr<HttpServer>>;

    using Routes = std::map<std::string, Route>;

    void start_l(const std::vector<Poco::Net::ServerSocket>& sockets, std::vector<Route>& replaced);
    Servers stop_l(Routes& forgotten);
    void startServers(const Servers& servers);
    bool isServing();
    Servers exchangeServers(Servers servers);

    // Guarded by _mutex, which is never held while a handler runs.
    Servers _servers;  // empty while not serving
    Routes _apis;

    std::mutex _lifecycle_mutex;  // one start() or stop() at a time; taken before _mutex
    std::mutex _mutex;
};

}  // namespace kel
