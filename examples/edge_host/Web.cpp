// Web.cpp - requests run on threads of the web server, several at a time, and may go on after
// stop(): every handler holds the object weakly and sends nothing once it has gone.

#include "Web.h"

#include <Poco/Format.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/MediaType.h>
#include <Poco/Net/NetException.h>
#include <Poco/NumberParser.h>
#include <Poco/ThreadPool.h>
#include <Poco/URI.h>
#include <common/ThreadPool.h>
#include <common/Utils.h>

#include <algorithm>

#include "HostLog.h"
#include "LogTail.h"
#include "Secrets.h"
#include "StatusPage.h"

namespace {

using Poco::JSON::Object;
using Poco::Net::HTTPResponse;
using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;

const std::string kApi = "/index/api/";
constexpr std::size_t kReports = 10;

// On Unix the port of a host that has just ended can be had at once; on Windows the same option
// would share it with one that is running, as the second one, which POCO sets by default, does on
// both.
#if defined(POCO_OS_FAMILY_UNIX)
constexpr bool kReuseAddress = true;
#else
constexpr bool kReuseAddress = false;
#endif
constexpr bool kReusePort = false;

Poco::Net::ServerSocket listenAt(const Settings& settings) {
    try {
        Poco::Net::ServerSocket socket;
        socket.bind({settings.webAddress, settings.webPort}, kReuseAddress, kReusePort);
        socket.listen();
        return socket;
    } catch (const Poco::Exception& exc) {
        throw Poco::IOException(
            Poco::format("no web API at %s, port %hu (settings http.address, "
                         "http.port): %s",
                         settings.webAddress, settings.webPort, exc.displayText()));
    }
}

std::size_t numberIn(const kel::WebApiBasic::ApiParams& params, const std::string& name,
                     unsigned fallback, unsigned most) {
    const auto found = params.find(name);
    unsigned number = 0;
    if (found == params.end() || !Poco::NumberParser::tryParseUnsigned(found->second, number))
        return fallback;
    return std::min(number, most);
}

// --- Who may ask -------------------------------------------------------------------------------

bool isAddress(const std::string& authority) {
    try {
        const std::string name = Poco::URI("http://" + authority).getHost();
        Poco::Net::IPAddress address;
        return name == "localhost" || Poco::Net::IPAddress::tryParse(name, address);
    } catch (const Poco::SyntaxException&) {
        return false;
    }
}

std::string whyRefused(const HTTPServerRequest& request) {
    const std::string host = request.get("Host", "localhost");
    if (!isAddress(host)) return "open this host by its address, not by a name";
    const std::string origin = request.get("Origin", "://" + host);
    const auto authority = origin.find("://");
    if (authority == std::string::npos || origin.substr(authority + 3) != host)
        return "pages of other hosts may not ask";
    return "";
}

void refuse(HTTPServerResponse& response, Object& result, HTTPResponse::HTTPStatus status,
            const std::string& reason) {
    response.setStatusAndReason(status);
    result.set("code", -1);
    result.set("msg", reason);
}

bool admitted(const HTTPServerRequest& request, HTTPServerResponse& response, Object& result) {
    response.set("Cache-Control", "no-store");
    response.set("X-Content-Type-Options", "nosniff");
    const std::string reason = whyRefused(request);
    if (!reason.empty()) refuse(response, result, HTTPResponse::HTTP_FORBIDDEN, reason);
    return reason.empty();
}

// --- What may be published ---------------------------------------------------------------------

bool isTopic(const std::string& topic) {
    return !topic.empty() && topic.size() <= 0xFFFF &&
           topic.find_first_of(std::string("#+\0", 3)) == std::string::npos;
}

const char* whyUnusable(const Object& body) {
    const int qos = body.optValue("qos", 1);
    if (!isTopic(body.optValue<std::string>("topic", ""))) return "no \"topic\" to publish to";
    if (body.getObject("message").isNull()) return "\"message\" is no JSON object";
    if (qos < 0 || qos > 2) return "\"qos\" is none of 0, 1 and 2";
    return nullptr;
}

template <typename Pool>
Object::Ptr pool(const Pool& pool) {
    Object::Ptr state(new Object);
    state->set("used", pool.used());
    state->set("threads", pool.allocated());
    state->set("capacity", pool.capacity());
    return state;
}

Object::Ptr pools() {
    Object::Ptr pools(new Object);
    Object::Ptr library = pool(kel::ThreadPool::defaultPool());
    library->set("pendingTasks", kel::ThreadPool::defaultPool().pendingTasks());
    pools->set("library", library);
    pools->set("web", pool(Poco::ThreadPool::defaultPool()));
    return pools;
}

void sendStatusPage(HTTPServerResponse& response) {
    response.setContentType("text/html; charset=utf-8");
    response.set("Content-Security-Policy",
                 "default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; "
                 "connect-src 'self'; img-src data:; base-uri 'none'; form-action 'none'; "
                 "frame-ancestors 'none'");
    response.sendBuffer(kStatusPage, kStatusPageSize);
}

}  // namespace

Web::Web(const Settings& settings)
    : _settings(settings), _shownSettings(settingsWithoutSecrets()), _socket(listenAt(settings)) {}

void Web::start(const std::shared_ptr<Node>& node) {
    _node = node;
    registerViews();
    registerActions();
    _api->start(_socket);
    replaceBuiltIns();
    poco_notice(hostLog(), "status page: http://" + _socket.address().toString() + "/status");
}

void Web::stop() {
    _api->stop();
}

void Web::registerViews() {
    list("/status", "GET", "the status page");
    _api->apiRegist("/status", [](auto& request, auto& response, auto&) {
        Object refusal;
        if (admitted(request, response, refusal)) return sendStatusPage(response);
        response.send() << refusal.getValue<std::string>("msg");
    });
    list(kApi + "alive", "GET", "says that the host answers");
    _api->apiRegist(kApi + "alive");
    get(kApi + "state", "host, connection, deliveries, rates, pools, reports", &Web::state);
    get(kApi + "messages", "the last messages; ?limit=20", &Web::messages);
    get(kApi + "settings", "the configuration without its secrets", &Web::settings);
    get(kApi + "log", "the log's last lines; ?lines=40", &Web::log);
}

void Web::registerActions() {
    const std::weak_ptr<Web> weak = weak_from_this();
    list(kApi + "on_server_started", "GET", "takes the report of another process's web hook");
    _api->apiRegist(kApi + "on_server_started",
                    [weak](auto& request, auto&, auto&, Object& result) {
                        if (const auto self = weak.lock()) self->serverStarted(request, result);
                    });
    list(kApi + "publish", "POST", R"({"topic": "...", "message": {...}, "qos": 1})");
    _api->apiRegist(kApi + "publish", [weak](auto& request, auto& response, auto&, Object& result,
                                             const Object& body) {
        const auto self = weak.lock();
        if (self && admitted(request, response, result))
            self->publish(request, response, result, body);
    });
}

// start() puts empty routes in these two places.
void Web::replaceBuiltIns() {
    list("/", "GET", "leads to the status page");
    _api->apiRegist("/", [](auto&, auto& response, auto&) { response.redirect("/status"); });
    get(kApi + "getApiList", "this list", &Web::routes);
}

void Web::get(const std::string& path, const std::string& what,
              void (Web::*fill)(const Params&, Object&)) {
    list(path, "GET", what);
    _api->apiRegist(path, [weak = weak_from_this(), fill](auto& request, auto& response,
                                                          auto& params, Object& result) {
        const auto self = weak.lock();
        if (!self || !admitted(request, response, result)) return;
        result.set("code", 0);
        (self.get()->*fill)(params, result);
    });
}

void Web::list(const std::string& path, const std::string& method, const std::string& what) {
    Object::Ptr route(new Object);
    route->set("path", path);
    route->set("method", method);
    route->set("what", what);
    _routes->add(route);
}

// A form on a page elsewhere cannot send this content type, nor a script without being let.
void Web::publish(const Request& request, Response& response, Object& result, const Object& body) {
    if (request.getMethod() != Request::HTTP_POST)
        return refuse(response, result, Response::HTTP_METHOD_NOT_ALLOWED, "only by POST");
    if (!Poco::Net::MediaType(request.getContentType()).matches("application", "json"))
        return refuse(response, result, Response::HTTP_UNSUPPORTED_MEDIA_TYPE,
                      "only as application/json");
    if (const char* reason = whyUnusable(body))
        return refuse(response, result, Response::HTTP_BAD_REQUEST, reason);
    const std::string text = kel::jsonToString(body.getObject("message"));
    if (!_node->link().publish(text, body.getValue<std::string>("topic"), body.optValue("qos", 1)))
        return refuse(response, result, Response::HTTP_SERVICE_UNAVAILABLE,
                      "not accepted: is there a connection to the broker?");
    result.set("code", 0);
    result.set("msg", "success");
}

void Web::state(const Params&, Object& result) {
    result.set("host", host());
    result.set("connection", _node->link().state());
    result.set("traffic", _node->link().traffic().rates());
    result.set("counters", _node->state());
    result.set("pools", pools());
    result.set("reports", reports());
}

Poco::JSON::Object::Ptr Web::host() const {
    Object::Ptr host(new Object);
    host->set("name", "edge_host");
    host->set("version", EDGE_HOST_VERSION);
    host->set("role", _settings.role);
    host->set("clientId", _settings.clientId);
    host->set("upSeconds", _started.elapsed() / Poco::Timestamp::resolution());
    host->set("testTopic", _node->testTopic());
    return host;
}

void Web::messages(const Params& params, Object& result) {
    result.set("messages",
               _node->link().traffic().lastMessages(numberIn(params, "limit", 20, 100)));
}

void Web::settings(const Params&, Object& result) {
    result.set("settings", _shownSettings);
}

void Web::log(const Params& params, Object& result) {
    result.set("lines", logTail(numberIn(params, "lines", 40, 200)));
}

void Web::routes(const Params&, Object& result) {
    result.set("routes", _routes);
}

// Another process's web hook. What it asks for is in its configuration, so it may come by any name.
void Web::serverStarted(const Request& request, Object& result) {
    const std::string from = request.clientAddress().host().toString();
    Object::Ptr report(new Object);
    report->set("from", from);
    report->set("time", Poco::Timestamp().epochMicroseconds() / 1000);
    const std::lock_guard<std::mutex> lock(_mutex);
    _reports.push_front(report);
    if (_reports.size() > kReports) _reports.pop_back();
    poco_information(hostLog(), Poco::format("report %u of a server at %s", ++_reportCount, from));
    result.set("code", 0);
    result.set("msg", "success");
}

Poco::JSON::Object::Ptr Web::reports() const {
    Object::Ptr reports(new Object);
    Poco::JSON::Array::Ptr last(new Poco::JSON::Array);
    const std::lock_guard<std::mutex> lock(_mutex);
    for (const auto& report : _reports) last->add(report);
    reports->set("count", _reportCount);
    reports->set("last", last);
    return reports;
}
