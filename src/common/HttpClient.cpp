// HttpClient.cpp - requests as tasks of the process-wide pool.
//
// A task owns everything it needs (its form excepted, which the caller keeps) and nothing of the
// client, so that the client may go first. Each counts as under way from its submission, and while
// it is connected its session is on a process-wide list. The end of the process waits for those
// under way, and cuts off what takes too long: a thread that a slow peer keeps busy would otherwise
// still run while POCO's static objects go.

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

#include "internal/log/UnitLog.h"
#include "internal/process/LibraryStop.h"
#include "internal/process/NeverDestroyed.h"
#include "internal/tls/Tls.h"

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
struct UnderWay {
    std::mutex mutex;
    // Guarded by mutex.
    int tasks = 0;
    std::set<HTTPClientSession*> sessions;
    bool stopped = false;  // until the next submission

    std::condition_variable ended;
};

UnderWay& underWay() {
    static NeverDestroyed<UnderWay> instance;
    return *instance;
}

void stopRequests() {
    UnderWay& all = underWay();
    std::unique_lock<std::mutex> lock(all.mutex);
    all.ended.wait_for(lock, kExitGrace, [&] { return all.tasks == 0 && all.sessions.empty(); });
    all.stopped = true;
    for (HTTPClientSession* session : all.sessions) {
        try {
            session->socket().shutdown();
        } catch (const Poco::Exception&) {
            // The peer was faster.
        }
    }
}

// Counts as a task under way while it exists.
class CountedTask {
public:
    CountedTask() {
        onLibraryStop(StopStage::kRequests, &stopRequests);
        const std::lock_guard<std::mutex> lock(underWay().mutex);
        if (!processIsEnding()) underWay().stopped = false;
        ++underWay().tasks;
    }
    ~CountedTask() {
        const std::lock_guard<std::mutex> lock(underWay().mutex);
        --underWay().tasks;
        underWay().ended.notify_all();
    }
    CountedTask(const CountedTask&) = delete;
    CountedTask& operator=(const CountedTask&) = delete;
};

void submit(std::function<void()> task) {
    ThreadPool::defaultPool().start(
        [task = std::move(task), counted = std::make_shared<CountedTask>()] { task(); });
}

// On the list from before its first byte goes out.
class ListedSession : public HTTPClientSession {
public:
    using HTTPClientSession::HTTPClientSession;

    ~ListedSession() override {
        const std::lock_guard<std::mutex> lock(underWay().mutex);
        underWay().sessions.erase(this);
        underWay().ended.notify_all();
    }

protected:
    void connect(const Poco::Net::SocketAddress& address) override {
        HTTPClientSession::connect(address);
        const std::lock_guard<std::mutex> lock(underWay().mutex);
        if (underWay().stopped) throw Poco::IllegalStateException("the library is being stopped");
        underWay().sessions.insert(this);
    }
};

// The socket decides what is spoken; a body never goes unprotected to a TLS port.
Poco::Net::StreamSocket socketFor(const Poco::URI& uri) {
    if (uri.getScheme() == "https") return tls::clientSocket(uri.getHost());
    return Poco::Net::StreamSocket();
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
    const Poco::URI uri(url);
    ListedSession session(socketFor(uri));
    session.setHost(uri.getHost());
    session.setPort(uri.getPort());
    session.setTimeout(kConnectTimeout, kTransferTimeout, kTransferTimeout);
    HTTPRequest request(method, requestTarget(uri), HTTPMessage::HTTP_1_1);
    send(session, request);
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

template <typename Send>
void post(const std::string& url, const HttpClient::ResponseCallback& callback, Send&& send) {
    reportingFailure(url, callback, [&] {
        exchange(url, HTTPRequest::HTTP_POST, callback,
                 [&](HTTPClientSession& session, HTTPRequest& request) {
                     session.setKeepAlive(true);
                     send(session, request);
                 });
    });
}

void postJson(const std::string& url, const std::string& body,
              const HttpClient::ResponseCallback& callback) {
    post(url, callback, [&](HTTPClientSession& session, HTTPRequest& request) {
        request.setContentType("application/json");
        request.setContentLength(static_cast<std::streamsize>(body.size()));
        session.sendRequest(request) << body << std::flush;
    });
}

void postForm(const std::string& url, Poco::Net::HTMLForm& form,
              const HttpClient::ResponseCallback& callback) {
    post(url, callback, [&](HTTPClientSession& session, HTTPRequest& request) {
        request.setContentType(form.getEncoding());
        form.prepareSubmit(request, 0);
        form.write(session.sendRequest(request));
    });
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
    submit([url = std::move(url), body = std::move(body), callback = std::move(callback)] {
        postJson(url, body, callback);
    });
}

void HttpClient::doHttpRequest(std::string url, Poco::Net::HTMLForm& form,
                               ResponseCallback callback) {
    submit([url = std::move(url), &form, callback = std::move(callback)] {
        postForm(url, form, callback);
    });
}

void HttpClient::doHttpRequest(std::string url, ResponseCallback callback) {
    submit([url = std::move(url), callback = std::move(callback)] {
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
