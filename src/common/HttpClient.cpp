// HttpClient.cpp - requests as tasks of the process-wide pool.
//
// A task owns everything it needs (its form excepted, which the caller keeps) and nothing of the
// client, so that the client may go first. While a request waits for its reply its session is on a
// process-wide list, through which the end of the process cuts off what takes too long: a thread
// that a slow peer keeps busy would otherwise still run while POCO's static objects go.

#include "HttpClient.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/NullStream.h>
#include <Poco/Timespan.h>
#include <Poco/URI.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>

#include "internal/ExitHooks.h"
#include "internal/Log.h"

namespace kel {

using Poco::Net::HTTPClientSession;
using Poco::Net::HTTPMessage;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;

namespace {

constexpr UnitLog log("src/common/HttpClient");

const Poco::Timespan::TimeDiff kConnectTimeout = 2 * Poco::Timespan::SECONDS;
const Poco::Timespan::TimeDiff kTransferTimeout = 10 * Poco::Timespan::SECONDS;

constexpr std::chrono::seconds kExitGrace(5);

// Never destroyed: tasks use it until the last one has ended.
struct Waiting {
    std::mutex mutex;
    // Guarded by mutex.
    std::set<HTTPClientSession*> sessions;
    bool stopped = false;

    std::condition_variable left;
};

void stopWaiting();

Waiting& waiting() {
    static Waiting& instance = []() -> Waiting& {
        onLibraryStop(ExitStage::kRequests, &stopWaiting);
        return *new Waiting;
    }();
    return instance;
}

void stopWaiting() {
    std::unique_lock<std::mutex> lock(waiting().mutex);
    waiting().left.wait_for(lock, kExitGrace, [] { return waiting().sessions.empty(); });
    waiting().stopped = true;
    for (HTTPClientSession* session : waiting().sessions) {
        try {
            session->socket().shutdown();
        } catch (const Poco::Exception&) {
            // The peer was faster.
        }
    }
}

class WaitingSession {
public:
    explicit WaitingSession(HTTPClientSession& session) : _session(session) {
        const std::lock_guard<std::mutex> lock(waiting().mutex);
        if (waiting().stopped) throw Poco::IllegalStateException("the process is ending");
        waiting().sessions.insert(&_session);
    }
    ~WaitingSession() {
        const std::lock_guard<std::mutex> lock(waiting().mutex);
        waiting().sessions.erase(&_session);
        waiting().left.notify_all();
    }
    WaitingSession(const WaitingSession&) = delete;
    WaitingSession& operator=(const WaitingSession&) = delete;

private:
    HTTPClientSession& _session;
};

Poco::URI parseUrl(const std::string& url) {
    Poco::URI uri(url);
    // The connection is a plain one; a body must not go unprotected to a TLS port.
    if (uri.getScheme() == "https") throw Poco::UnknownURISchemeException("https is not supported");
    return uri;
}

// Path and query as the request line takes them.
std::string requestTarget(const Poco::URI& uri) {
    std::string target = uri.getPathAndQuery();
    if (target.empty() || target.front() != '/') target.insert(0, 1, '/');
    // POCO sends the query as it stands; a line end in it would begin a header of its own.
    const auto breaksLine = [](unsigned char c) { return c <= ' ' || c == 0x7F; };
    if (std::any_of(target.begin(), target.end(), breaksLine)) {
        throw Poco::URISyntaxException("blank or control character in the query");
    }
    return target;
}

// One request and its reply over a connection of its own; `send` completes and sends the request.
template <typename Send>
void exchange(const std::string& url, const std::string& method,
              const HttpClient::ResponseCallback& callback, Send&& send) {
    const Poco::URI uri = parseUrl(url);
    HTTPClientSession session(uri.getHost(), uri.getPort());
    session.setTimeout(kConnectTimeout, kTransferTimeout, kTransferTimeout);
    HTTPRequest request(method, requestTarget(uri), HTTPMessage::HTTP_1_1);
    send(session, request);
    const WaitingSession listed(session);
    HTTPResponse response;
    std::istream& body = session.receiveResponse(response);
    if (callback) callback(response.getStatus(), body);
}

// What every request's failure comes to, wherever it arose.
template <typename Call>
void reportingFailure(const std::string& url, const HttpClient::ResponseCallback& callback,
                      Call&& call) {
    try {
        call();
    } catch (const Poco::Exception& exc) {
        log.error(Poco::format("requst url '%s' exception: %s", url, exc.displayText()));
        Poco::NullInputStream none;
        callback(HTTPResponse::HTTP_BAD_REQUEST, none);
    }
}

void postJson(const std::string& url, const std::string& body,
              const HttpClient::ResponseCallback& callback) {
    const auto send = [&](HTTPClientSession& session, HTTPRequest& request) {
        session.setKeepAlive(true);
        request.setContentType("application/json");
        request.setContentLength(static_cast<std::streamsize>(body.size()));
        session.sendRequest(request) << body << std::flush;
    };
    reportingFailure(url, callback, [&] { exchange(url, HTTPRequest::HTTP_POST, callback, send); });
}

void postForm(const std::string& url, Poco::Net::HTMLForm& form,
              const HttpClient::ResponseCallback& callback) {
    const auto send = [&](HTTPClientSession& session, HTTPRequest& request) {
        session.setKeepAlive(true);
        request.setContentType(form.getEncoding());
        form.prepareSubmit(request, 0);
        form.write(session.sendRequest(request));
    };
    reportingFailure(url, callback, [&] { exchange(url, HTTPRequest::HTTP_POST, callback, send); });
}

}  // namespace

std::shared_ptr<HttpClient> HttpClient::createInstance() {
    return std::shared_ptr<HttpClient>(new HttpClient);
}

std::shared_ptr<HttpClient> HttpClient::defaultHttpClient() {
    static const auto& instance = *new std::shared_ptr<HttpClient>(createInstance());
    return instance;
}

HttpClient::HttpClient() : _thread_pool(new ThreadPool(1, 32, 60, 0)) {}

HttpClient::~HttpClient() = default;

void HttpClient::doHttpRequest(std::string url, std::string body, ResponseCallback callback) {
    ThreadPool::defaultPool().start(
        [url = std::move(url), body = std::move(body), callback = std::move(callback)] {
            postJson(url, body, callback);
        });
}

void HttpClient::doHttpRequest(std::string url, Poco::Net::HTMLForm& form,
                               ResponseCallback callback) {
    ThreadPool::defaultPool().start([url = std::move(url), &form, callback = std::move(callback)] {
        postForm(url, form, callback);
    });
}

void HttpClient::doHttpRequest(std::string url, ResponseCallback callback) {
    ThreadPool::defaultPool().start([url = std::move(url), callback = std::move(callback)] {
        reportingFailure(url, callback, [&] { do_http_request(url, callback); });
    });
}

void HttpClient::doHttpRequestSync(std::string url, std::string body, ResponseCallback callback) {
    postJson(url, body, callback);
}

void HttpClient::do_http_request(std::string url, ResponseCallback callback) {
    exchange(
        url, HTTPRequest::HTTP_GET, callback,
        [](HTTPClientSession& session, HTTPRequest& request) { session.sendRequest(request); });
}

}  // namespace kel
