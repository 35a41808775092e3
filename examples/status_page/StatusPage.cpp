// StatusPage.cpp - requests run on threads of the web server, several at a time, and may go on
// after stop(). Every handler therefore holds the page weakly, and sends nothing once the page is
// destroyed. No handler waits for the broker: messages are put into a queue.
//
// All checks of a request stand in one place, whyRefused(). They are made before the body is read,
// so that nobody without the key can have a body parsed.
//
//   state                          who touches it                        lock
//   _routes, _host, _queue         written by start(), then only read    none
//   _reportCount, _reports         every request                         _mutex

#include "StatusPage.h"

#include <Poco/File.h>
#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/MediaType.h>
#include <Poco/NumberParser.h>
#include <Poco/StreamCopier.h>
#include <Poco/String.h>
#include <Poco/StringTokenizer.h>
#include <common/HttpServer.h>
#include <common/Logger.h>
#include <common/Statistics.h>
#include <common/ThreadPool.h>
#include <common/Tls.h>
#include <common/Utils.h>

#include <algorithm>
#include <utility>

#include "LogTail.h"
#include "PageFiles.h"
#include "Text.h"

namespace status_page {

namespace {

using Poco::JSON::Object;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;
using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;
using Poco::Net::ServerSocket;
using Poco::Net::SocketAddress;

const std::string kApi = "/index/api/";
constexpr std::size_t kReports = 10;
constexpr std::size_t kLineLimit = 1000;  // bytes shown of a line
constexpr std::streamsize kLongestBody = 256 * 1024;

// --- Listening ---------------------------------------------------------------------------------

// Without TLS, whoever listens in on the network would learn the key.
void expectPrivate(const SocketAddress& address, bool openToNetwork) {
    if (address.host().isLoopback() || openToNetwork) return;
    throw Poco::InvalidAccessException(
        Poco::format("the web API would be open to the network without TLS at %s (setting "
                     "http.address): set http.openToNetwork to true if that is wanted, or provide "
                     "the certificate %s",
                     address.host().toString(), kel::serverCertificateFile()));
}

// The library's defaults name a certificate that most machines do not have, so the name alone does
// not tell that TLS is wanted.
bool hasCertificate() {
    const std::string file = kel::serverCertificateFile();
    return !file.empty() && Poco::File(file).exists();
}

ServerSocket listenAt(const std::string& host, const PageSettings& settings, bool overTls) {
    const Poco::UInt16 port = overTls ? settings.tlsPort : settings.port;
    try {
        const SocketAddress address(host, port);
        if (overTls) return kel::secureServerSocket(address);
        expectPrivate(address, settings.openToNetwork);
        return kel::serverSocket(address);
    } catch (const Poco::InvalidAccessException&) {
        throw;
    } catch (const Poco::Exception& exc) {
        throw Poco::IOException(
            Poco::format("no web API at %s, port %hu (settings http.address, %s): %s", host, port,
                         std::string(overTls ? "http.sslport, openSSL.server.*" : "http.port"),
                         exc.displayText()));
    }
}

// --- Replies -----------------------------------------------------------------------------------

void send(HTTPServerResponse& response, const std::string& type, const std::string& text) {
    response.setContentType(type);
    response.sendBuffer(text.data(), text.size());
}

void sendJson(HTTPServerResponse& response, const Object& object) {
    std::ostringstream text;
    object.stringify(text);
    send(response, "application/json", text.str());
}

void answer(HTTPServerResponse& response, HTTPResponse::HTTPStatus status, int code,
            const std::string& message) {
    Object result;
    result.set("code", code);
    result.set("msg", message);
    response.setStatusAndReason(status);
    sendJson(response, result);
}

void refuse(HTTPServerResponse& response, HTTPResponse::HTTPStatus status,
            const std::string& reason) {
    if (status == HTTPResponse::HTTP_UNAUTHORIZED) response.set("WWW-Authenticate", "Bearer");
    answer(response, status, -1, reason);
}

// Tells browsers to keep no reply of this host, to show none inside of other pages, and to take
// none for another type than it has.
void setProtection(HTTPServerResponse& response) {
    response.set("Cache-Control", "no-store");
    response.set("Cross-Origin-Opener-Policy", "same-origin");
    response.set("Cross-Origin-Resource-Policy", "same-origin");
    response.set("Referrer-Policy", "no-referrer");
    response.set("X-Content-Type-Options", "nosniff");
    response.set("Content-Security-Policy",
                 "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
                 "img-src data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'; "
                 "require-trusted-types-for 'script'");
}

// --- Requests ----------------------------------------------------------------------------------

std::size_t numberIn(const kel::WebApiBasic::ApiParams& params, const std::string& name,
                     unsigned fallback, unsigned most) {
    const auto found = params.find(name);
    unsigned number = 0;
    if (found == params.end() || !Poco::NumberParser::tryParseUnsigned(found->second, number)) {
        return fallback;
    }
    return std::min(number, most);
}

bool isMethod(const HTTPServerRequest& request, const std::string& method) {
    return request.getMethod() == method ||
           (method == HTTPRequest::HTTP_GET && request.getMethod() == HTTPRequest::HTTP_HEAD);
}

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

std::optional<Access::Refusal> whyBodyUnusable(const HTTPServerRequest& request) {
    using Refusal = Access::Refusal;
    if (!Poco::Net::MediaType(request.getContentType()).matches("application", "json")) {
        return Refusal{HTTPResponse::HTTP_UNSUPPORTED_MEDIA_TYPE, "only as application/json"};
    }
    if (!request.hasContentLength()) {
        return Refusal{HTTPResponse::HTTP_LENGTH_REQUIRED, "only with a Content-Length"};
    }
    if (request.getContentLength() > kLongestBody) {
        return Refusal{HTTPResponse::HTTP_REQUEST_ENTITY_TOO_LARGE, "at most 256 KiB"};
    }
    return std::nullopt;
}

Object::Ptr poolState() {
    kel::ThreadPool& pool = kel::ThreadPool::defaultPool();
    Object::Ptr state(new Object);
    state->set("pendingTasks", pool.pendingTasks());
    state->set("threads", pool.allocated());
    state->set("capacity", pool.capacity());
    return state;
}

Object::Ptr serverState(const kel::HttpStatistics& server) {
    Object::Ptr state(new Object);
    state->set("connections", server.connections);
    state->set("queued", server.queued);
    state->set("refused", server.refused);
    state->set("requests", server.requests);
    state->set("status2xx", server.status2xx);
    state->set("status3xx", server.status3xx);
    state->set("status4xx", server.status4xx);
    state->set("status5xx", server.status5xx);
    return state;
}

// What "/metrics" tells about the library, for the page.
Poco::JSON::Array::Ptr libraryState() {
    Poco::JSON::Array::Ptr state(new Poco::JSON::Array);
    for (const Metric& metric : libraryMetrics()) {
        Object::Ptr number(new Object);
        number->set("name", metric.name + labelsText(metric.labels));
        number->set("value", metric.value);
        state->add(number);
    }
    return state;
}

std::vector<std::string> namesIn(const std::string& list) {
    using Poco::StringTokenizer;
    const StringTokenizer names(Poco::toLower(list), ",",
                                StringTokenizer::TOK_TRIM | StringTokenizer::TOK_IGNORE_EMPTY);
    return {names.begin(), names.end()};
}

const char* typeOf(const std::string& file) {
    if (file.find(".css") != std::string::npos) return "text/css; charset=utf-8";
    if (file.find(".js") != std::string::npos) return "text/javascript; charset=utf-8";
    return "text/html; charset=utf-8";
}

}  // namespace

std::vector<ServerSocket> StatusPage::listen(const PageSettings& settings) {
    if (!hasCertificate()) return {listenAt(settings.address, settings, false)};
    std::vector<ServerSocket> sockets = {listenAt(settings.address, settings, true)};
    if (settings.besideTls) sockets.push_back(listenAt("127.0.0.1", settings, false));
    return sockets;
}

StatusPage::StatusPage(const PageSettings& settings, const std::vector<ServerSocket>& sockets)
    : _settings(settings),
      _sockets(sockets),
      _hostNames(namesIn(settings.hostNames)),
      _access(settings.key, _hostNames, settings.scheme),
      _disclosure(settings.shownSettings) {}

void StatusPage::start(const std::shared_ptr<Host>& host) {
    _host = host;
    _queue = std::make_unique<PublishQueue>([host](const PublishQueue::Message& message) {
        return host->publish(message.text, message.topic, message.qos);
    });
    registerPage();
    registerRoutes();
    _api->start(_sockets);
    replaceBuiltIns();
    poco_notice(Poco::Logger::get(kel::logName()), "status page: " + address());
}

void StatusPage::stop() {
    _api->stop();
    if (_queue) _queue->stop();
}

std::string StatusPage::address() const {
    const ServerSocket& socket = _sockets.front();
    SocketAddress at = socket.address();
    const bool everywhere = at.host().isWildcard();
    if (everywhere) at = SocketAddress("127.0.0.1", at.port());
    const bool byName = everywhere && socket.secure() && !_hostNames.empty();
    const std::string authority =
        byName ? _hostNames.front() + ":" + std::to_string(at.port()) : at.toString();
    return (socket.secure() ? "https" : _settings.scheme) + "://" + authority + "/status";
}

// --- Routes ------------------------------------------------------------------------------------

void StatusPage::registerPage() {
    for (std::size_t i = 0; i < kPageFileCount; ++i) {
        const PageFile& file = kPageFiles[i];
        const bool isPage = i == 0;
        addRoute(isPage ? "/status" : std::string("/status/") + file.name, "GET",
                 isPage ? "the status page" : "part of the status page", Open::kPage,
                 [&file](StatusPage&, Exchange& exchange) {
                     exchange.response.setContentType(typeOf(file.name));
                     exchange.response.sendBuffer(file.bytes, file.size);
                 });
    }
}

void StatusPage::registerRoutes() {
    addToList(kApi + "alive", "GET", "says that the host answers");
    _api->apiRegist(kApi + "alive");
    addView(kApi + "state", "host, connection, deliveries, rates, queue, pool, server, reports",
            &StatusPage::state);
    addView(kApi + "messages", "the last messages; ?limit=20", &StatusPage::messages);
    addView(kApi + "settings", "the configuration without its secrets", &StatusPage::settings);
    addView(kApi + "log", "the log's last lines; ?lines=40", &StatusPage::log);
    addRoute("/metrics", "GET", "the numbers for Prometheus", Open::kWithKey, &StatusPage::metrics);
    addRoute(kApi + "publish", "POST", R"({"topic": "...", "message": {...}, "qos": 1})",
             Open::kWithKey, &StatusPage::publish);
    addRoute(kApi + "on_server_started", "GET",
             "takes the report of another process's web hook; ?secret=<http.hookSecret>",
             Open::kToHooks, &StatusPage::serverStarted);
}

// WebApiBasic::start() has registered routes of its own at these two paths, which send nothing.
void StatusPage::replaceBuiltIns() {
    addRoute("/", "GET", "leads to the status page", Open::kPage,
             [](StatusPage&, Exchange& exchange) { exchange.response.redirect("/status"); });
    addView(kApi + "getApiList", "this list", &StatusPage::routes);
}

void StatusPage::addView(const std::string& path, const std::string& what, View fill) {
    addRoute(path, "GET", what, Open::kWithKey, [fill](StatusPage& page, Exchange& exchange) {
        Object result;
        result.set("code", 0);
        (page.*fill)(exchange, result);
        sendJson(exchange.response, result);
    });
}

void StatusPage::addToList(const std::string& path, const std::string& method,
                           const std::string& what) {
    Object::Ptr route(new Object);
    route->set("path", path);
    route->set("method", method);
    route->set("what", what);
    _routes->add(route);
}

void StatusPage::addRoute(const std::string& path, const std::string& method,
                          const std::string& what, Open open,
                          std::function<void(StatusPage&, Exchange&)> handler) {
    addToList(path, method, what);
    auto serve = [weak = weak_from_this(), method, open, handler](
                     Request& request, Response& response,
                     const kel::WebApiBasic::ApiParams& params) {
        const auto self = weak.lock();
        if (!self) return;
        Exchange exchange{request, response, params};
        setProtection(response);
        if (const auto refusal = self->whyRefused(exchange, method, open)) {
            return refuse(response, refusal->status, refusal->reason);
        }
        handler(*self, exchange);
    };
    _api->apiRegist(path, kel::WebApiBasic::ApiHandler(serve));
}

std::optional<Access::Refusal> StatusPage::whyRefused(const Exchange& exchange,
                                                      const std::string& method, Open open) const {
    if (auto refusal = _access.checkSource(exchange.request, open == Open::kPage)) return refusal;
    if (!isMethod(exchange.request, method)) {
        return Access::Refusal{Response::HTTP_METHOD_NOT_ALLOWED, "only by " + method};
    }
    if (open == Open::kPage) return std::nullopt;
    if (open == Open::kWithKey) return _access.checkKey(exchange.request);
    const auto secret = exchange.params.find("secret");
    if (secret != exchange.params.end() && isKey(secret->second, _settings.hookSecret)) {
        return std::nullopt;
    }
    return Access::Refusal{Response::HTTP_FORBIDDEN, "only with ?secret=<setting http.hookSecret>"};
}

// --- What is done ------------------------------------------------------------------------------

void StatusPage::publish(Exchange& exchange) {
    Response& response = exchange.response;
    if (const auto refusal = whyBodyUnusable(exchange.request)) {
        return refuse(response, refusal->status, refusal->reason);
    }
    std::string text;
    Poco::StreamCopier::copyToString(exchange.request.stream(), text);
    const Object::Ptr body = kel::stringToJson(text);
    const char* reason = body ? whyUnusable(*body) : "the body is no JSON object";
    if (reason) return refuse(response, Response::HTTP_BAD_REQUEST, reason);
    if (!_host->connection()->getValue<bool>("connected")) {
        return refuse(response, Response::HTTP_SERVICE_UNAVAILABLE, "no connection to the broker");
    }
    if (!_queue->offer({kel::jsonToString(body->getObject("message")),
                        body->getValue<std::string>("topic"), body->optValue("qos", 1)})) {
        response.set("Retry-After", "1");
        return refuse(response, Response::HTTP_SERVICE_UNAVAILABLE,
                      "the broker does not take what is published");
    }
    answer(response, Response::HTTP_ACCEPTED, 0, "success");
}

void StatusPage::serverStarted(Exchange& exchange) {
    const std::string from = exchange.request.clientAddress().host().toString();
    Object::Ptr report(new Object);
    report->set("from", from);
    report->set("time", Poco::Timestamp().epochMicroseconds() / 1000);
    unsigned number = 0;
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _reports.push_front(report);
        if (_reports.size() > kReports) _reports.pop_back();
        number = ++_reportCount;
    }
    poco_information(Poco::Logger::get(kel::logName()),
                     Poco::format("report %u of a server at %s", number, from));
    answer(exchange.response, Response::HTTP_OK, 0, "success");
}

// --- What is shown -----------------------------------------------------------------------------

void StatusPage::state(const Exchange&, Object& result) {
    result.set("host", hostState());
    result.set("connection", connectionState());
    result.set("traffic", _host->traffic().rates());
    result.set("counters", _host->counters());
    result.set("queue", queueState());
    result.set("pool", poolState());
    result.set("server", serverState(_api->statistics()));
    result.set("library", libraryState());
    result.set("reports", reports());
}

Poco::JSON::Object::Ptr StatusPage::hostState() const {
    Object::Ptr host = _host->description();
    host->set("upSeconds", _started.elapsed() / Poco::Timestamp::resolution());
    return host;
}

Poco::JSON::Object::Ptr StatusPage::connectionState() const {
    const kel::MqttStatistics mqtt = kel::statistics().mqtt;
    Poco::JSON::Array::Ptr accepted(new Poco::JSON::Array);
    for (const auto count : mqtt.published) accepted->add(count);
    Object::Ptr state = _host->connection();
    state->set("accepted", accepted);
    state->set("confirmed", mqtt.confirmed);
    state->set("refused", mqtt.refused);
    return state;
}

Poco::JSON::Object::Ptr StatusPage::queueState() const {
    Object::Ptr state(new Object);
    state->set("depth", _queue->depth());
    state->set("places", PublishQueue::kPlaces);
    state->set("refused", _queue->refused());
    return state;
}

Poco::JSON::Object::Ptr StatusPage::reports() const {
    Object::Ptr reports(new Object);
    Poco::JSON::Array::Ptr last(new Poco::JSON::Array);
    const std::lock_guard<std::mutex> lock(_mutex);
    for (const auto& report : _reports) last->add(report);
    reports->set("count", _reportCount);
    reports->set("last", last);
    return reports;
}

void StatusPage::messages(const Exchange& exchange, Object& result) {
    const std::size_t count = numberIn(exchange.params, "limit", 20, 100);
    result.set("messages", _host->traffic().lastMessages(count));
}

void StatusPage::settings(const Exchange&, Object& result) {
    result.set("settings", _disclosure.settings());
}

void StatusPage::log(const Exchange& exchange, Object& result) {
    Poco::JSON::Array::Ptr lines(new Poco::JSON::Array);
    for (const std::string& line : logTail(numberIn(exchange.params, "lines", 40, 200))) {
        // Cut only after the secrets are covered: the half of one would not be recognised.
        lines->add(excerpt(_disclosure.line(line), kLineLimit));
    }
    result.set("lines", lines);
}

void StatusPage::routes(const Exchange&, Object& result) {
    result.set("routes", _routes);
}

void StatusPage::metrics(Exchange& exchange) {
    std::vector<Metric> all = hostMetrics();
    for (const auto& more : {ownMetrics(), libraryMetrics()}) {
        all.insert(all.end(), more.begin(), more.end());
    }
    send(exchange.response, "text/plain; version=0.0.4; charset=utf-8", prometheusText(all));
}

std::vector<Metric> StatusPage::hostMetrics() const {
    const Object::Ptr connection = _host->connection(), counters = _host->counters();
    const std::string name = _host->description()->getValue<std::string>("name");
    std::vector<Metric> all{
        {name + "_connected", "Whether there is a connection to the broker.", Metric::kGauge,
         connection->getValue<bool>("connected") ? 1.0 : 0.0},
        {name + "_connection_losses_total", "Connections to the broker that were lost.",
         Metric::kCounter, connection->getValue<double>("losses")}};
    for (const auto& [counter, count] : *counters) {
        if (!count.isNumeric()) continue;
        all.push_back({Poco::format("%s_%s_total", name, counter),
                       "A counter of the process's own.", Metric::kCounter,
                       count.convert<double>()});
    }
    return all;
}

std::vector<Metric> StatusPage::ownMetrics() const {
    const Object::Ptr host = _host->description(), traffic = _host->traffic().rates();
    const auto counter = Metric::kCounter, gauge = Metric::kGauge;
    Metric::Labels labels;
    for (const char* name : {"name", "version", "role"}) {
        labels.emplace_back(name, host->optValue<std::string>(name, ""));
    }
    return {
        {"status_page_host_info", "The process that serves the page.", gauge, 1, labels},
        {"process_start_time_seconds", "When the process started, since 1970.", gauge,
         static_cast<double>(_started.epochMicroseconds()) / 1e6},
        {"status_page_messages_total",
         "Messages on the bus.",
         counter,
         traffic->getValue<double>("received"),
         {{"direction", "received"}}},
        {"status_page_messages_total",
         "",
         counter,
         traffic->getValue<double>("sent"),
         {{"direction", "sent"}}},
        {"status_page_reports_total", "Reports of other processes by their web hook.", counter,
         reports()->getValue<double>("count")},
        {"status_page_queue_depth", "Messages that wait to be published.", gauge,
         static_cast<double>(_queue->depth())},
        {"status_page_queue_refused_total", "Messages refused with status 503.", counter,
         static_cast<double>(_queue->refused())},
    };
}

}  // namespace status_page
