// WebApiBasic.cpp - the route table and what stands between it and the handlers.
//
// A request takes its handler out of the table under the lock and calls it without. The handler is
// shared, not copied, so that state which a handler captured by value is the same in every request;
// whoever replaces or forgets a route does not disturb the requests that have begun. What handlers
// captured is destroyed with no lock held: that may stop the web API in turn.

#include "WebApiBasic.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/NullStream.h>
#include <Poco/String.h>
#include <Poco/URI.h>

#include <algorithm>

#include "HttpServer.h"
#include "internal/http/JsonBody.h"
#include "internal/log/UnitLog.h"
#include "internal/process/NeverDestroyed.h"

namespace kel {

using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;

namespace {

constexpr UnitLog log("src/common/WebApiBasic");

void logRegistration(const std::string& path) {
    log.information(Poco::format("web api regist: %s", path));
}

WebApiBasic::ApiParams queryParameters(const Poco::URI& uri) {
    WebApiBasic::ApiParams params;
    for (const auto& [name, value] : uri.getQueryParameters()) params.emplace(name, value);
    return params;
}

// With its length, so that the connection can take another request.
void sendStandardReply(HTTPServerResponse& response, const std::string& text) {
    if (!response.getChunkedTransferEncoding()) {
        response.setContentLength64(static_cast<Poco::Int64>(text.size()));
    }
    response.send() << text;
}

// What calls `handler` for these methods and answers all others itself.
WebApiBasic::ApiHandler onlyFor(WebApiBasic::Methods methods, WebApiBasic::ApiHandler handler) {
    if (methods.empty()) throw Poco::InvalidArgumentException("a route without methods");
    return [methods = std::move(methods), handler = std::move(handler)](
               HTTPServerRequest& request, HTTPServerResponse& response,
               const WebApiBasic::ApiParams& params) {
        const auto& method = request.getMethod();
        if (std::find(methods.begin(), methods.end(), method) != methods.end()) {
            return handler(request, response, params);
        }
        response.setStatus(HTTPServerResponse::HTTP_METHOD_NOT_ALLOWED);
        response.set("Allow", Poco::cat(std::string(", "), methods.begin(), methods.end()));
        response.setContentType("application/json");
        sendStandardReply(response, R"({"code": -1, "msg": "method not allowed"})");
    };
}

void prepareJsonReply(HTTPServerResponse& response) {
    response.setChunkedTransferEncoding(true);
    response.setContentType("application/json");
}

// POCO up to 1.14 takes a body without a length to end with the connection, which would hold the
// thread for as long as the client likes.
bool hasBody(const HTTPServerRequest& request) {
    return request.getChunkedTransferEncoding() || request.hasContentLength();
}

Poco::JSON::Object::Ptr jsonBody(HTTPServerRequest& request) {
    if (request.hasContentLength()) checkJsonBodyLength(request.getContentLength64());
    Poco::NullInputStream none;
    return readJsonObject(hasBody(request) ? request.stream() : static_cast<std::istream&>(none));
}

void add(const HttpStatistics& numbers, HttpStatistics& sum) {
    sum.connections += numbers.connections;
    sum.queued += numbers.queued;
    sum.mostQueued = std::max(sum.mostQueued, numbers.mostQueued);
    sum.refused += numbers.refused;
    sum.requests += numbers.requests;
    sum.status2xx += numbers.status2xx;
    sum.status3xx += numbers.status3xx;
    sum.status4xx += numbers.status4xx;
    sum.status5xx += numbers.status5xx;
}

}  // namespace

std::shared_ptr<WebApiBasic> WebApiBasic::instance() {
    static NeverDestroyed<std::shared_ptr<WebApiBasic>> instance(
        std::shared_ptr<WebApiBasic>(new WebApiBasic));
    return *instance;
}

WebApiBasic::WebApiBasic() = default;

WebApiBasic::~WebApiBasic() = default;

void WebApiBasic::apiNotFound(HTTPServerResponse& response) {
    sendStandardReply(response, R"({"code": -1, "msg": "api not found"})");
}

void WebApiBasic::apiSuccess(HTTPServerResponse& response) {
    sendStandardReply(response, R"({"code": 0, "msg": "success"})");
}

void WebApiBasic::bodyNotFound(HTTPServerResponse& response) {
    sendStandardReply(response,
                      R"({"code": -1, "msg": "body not found or cannot be resolved to json"})");
}

// What both JSON shapes do; `body` is the object of the one that takes it.
template <typename Handler, typename... Body>
void WebApiBasic::answerJson(const Handler& handler, HTTPServerRequest& request,
                             HTTPServerResponse& response, const ApiParams& params,
                             const Body&... body) {
    if (!handler) return apiNotFound(response);
    logAndRethrow(log, [&] {
        Poco::JSON::Object result;
        handler(request, response, params, result, *body...);
        if (result.size() > 0) result.stringify(response.send(), 0, -1);
    });
}

void WebApiBasic::apiRegist(std::string path) {
    store(std::move(path), [](HTTPServerRequest&, HTTPServerResponse& response, const ApiParams&) {
        apiSuccess(response);
    });
}

WebApiBasic::ApiHandler WebApiBasic::plain(ApiJsonHandler handler) {
    return [handler = std::move(handler)](HTTPServerRequest& request, HTTPServerResponse& response,
                                          const ApiParams& params) {
        prepareJsonReply(response);
        answerJson(handler, request, response, params);
    };
}

WebApiBasic::ApiHandler WebApiBasic::plain(ApiJsonBodyHandler handler) {
    return [handler = std::move(handler)](HTTPServerRequest& request, HTTPServerResponse& response,
                                          const ApiParams& params) {
        prepareJsonReply(response);
        const Poco::JSON::Object::Ptr body = jsonBody(request);
        if (!body) bodyNotFound(response);  // in case the parser ever gives none
        answerJson(handler, request, response, params, body);
    };
}

void WebApiBasic::apiRegist(std::string path, ApiHandler handler) {
    logRegistration(path);
    store(std::move(path), std::move(handler));
}

void WebApiBasic::apiRegist(std::string path, ApiJsonHandler handler) {
    apiRegist(std::move(path), plain(std::move(handler)));
}

void WebApiBasic::apiRegist(std::string path, ApiJsonBodyHandler handler) {
    apiRegist(std::move(path), plain(std::move(handler)));
}

void WebApiBasic::apiRegist(std::string path, Methods methods, ApiHandler handler) {
    apiRegist(std::move(path), onlyFor(std::move(methods), std::move(handler)));
}

void WebApiBasic::apiRegist(std::string path, Methods methods, ApiJsonHandler handler) {
    apiRegist(std::move(path), onlyFor(std::move(methods), plain(std::move(handler))));
}

void WebApiBasic::apiRegist(std::string path, Methods methods, ApiJsonBodyHandler handler) {
    apiRegist(std::move(path), onlyFor(std::move(methods), plain(std::move(handler))));
}

void WebApiBasic::start(const Poco::Net::ServerSocket& socket) {
    start(std::vector<Poco::Net::ServerSocket>{socket});
}

void WebApiBasic::start(const std::vector<Poco::Net::ServerSocket>& sockets) {
    if (sockets.empty()) throw Poco::InvalidArgumentException("no socket to serve on");
    std::vector<Route> replaced;
    start_l(sockets, replaced);
}

// What the built-in routes replace is destroyed by the caller, who holds no lock.
void WebApiBasic::start_l(const std::vector<Poco::Net::ServerSocket>& sockets,
                          std::vector<Route>& replaced) {
    const std::lock_guard<std::mutex> lifecycle(_lifecycle_mutex);
    if (isServing()) throw Poco::LogicException();
    const auto noReply = [](HTTPServerRequest&, HTTPServerResponse&, const ApiParams&) {};
    for (const char* builtIn : {"/", "/index/api/getApiList"}) {
        replaced.push_back(store(builtIn, noReply));
    }
    Servers servers;
    for (const Poco::Net::ServerSocket& socket : sockets) {
        servers.push_back(HttpServer::createInstance(
            socket, new Poco::Net::HTTPServerParams,
            [this](HTTPServerRequest& request, HTTPServerResponse& response) {
                dispatch(request, response);
            }));
    }
    startServers(servers);
}

void WebApiBasic::startServers(const Servers& servers) {
    exchangeServers(servers);
    try {
        for (const auto& server : servers) server->start();
    } catch (...) {
        for (const auto& server : exchangeServers({})) server->stop();
        throw;
    }
}

// Servers that stopLibrary() has stopped serve no more.
bool WebApiBasic::isServing() {
    const std::lock_guard<std::mutex> lock(_mutex);
    return std::any_of(_servers.begin(), _servers.end(),
                       [](const auto& server) { return server->running(); });
}

void WebApiBasic::stop() {
    stop(std::chrono::milliseconds::zero());
}

bool WebApiBasic::stop(std::chrono::milliseconds patience) {
    using Clock = std::chrono::steady_clock;
    using std::chrono::milliseconds;
    constexpr std::chrono::hours kLongest(24);  // a longer wait could exceed the clock's range
    const auto end = Clock::now() + std::clamp<milliseconds>(patience, milliseconds(0), kLongest);
    Routes forgotten;
    const Servers servers = stop_l(forgotten);
    forgotten.clear();
    bool allEnded = true;
    for (const auto& server : servers) {
        const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
        allEnded = server->stop(left) && allEnded;
    }
    return allEnded;
}

// @param forgotten  takes the routes, to be destroyed by the caller, who holds no lock.
// @return the servers, which may still answer requests that they have begun.
WebApiBasic::Servers WebApiBasic::stop_l(Routes& forgotten) {
    const std::lock_guard<std::mutex> lifecycle(_lifecycle_mutex);
    Servers servers = exchangeServers({});
    for (const auto& server : servers) server->stop();
    const std::lock_guard<std::mutex> lock(_mutex);
    forgotten.swap(_apis);
    return servers;
}

HttpStatistics WebApiBasic::statistics() {
    const std::lock_guard<std::mutex> lock(_mutex);
    HttpStatistics sum;
    for (const auto& server : _servers) add(server->statistics(), sum);
    return sum;
}

WebApiBasic::Route WebApiBasic::store(std::string path, ApiHandler handler) {
    auto route = std::make_shared<const ApiHandler>(std::move(handler));
    const std::lock_guard<std::mutex> lock(_mutex);
    _apis[std::move(path)].swap(route);
    return route;
}

// @return those from before.
WebApiBasic::Servers WebApiBasic::exchangeServers(Servers servers) {
    const std::lock_guard<std::mutex> lock(_mutex);
    _servers.swap(servers);
    return servers;
}

void WebApiBasic::dispatch(HTTPServerRequest& request, HTTPServerResponse& response) {
    const Poco::URI uri(request.getURI());
    Route route;
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (_servers.empty())
            return;  // a connection from before stop(); without a reply it is closed
        const auto found = _apis.find(uri.getPath());
        if (found != _apis.end()) route = found->second;
    }
    if (!route) return apiNotFound(response);
    logAndRethrow(log, [&] { (*route)(request, response, queryParameters(uri)); });
}

}  // namespace kel
