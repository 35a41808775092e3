// HttpClient.cpp - requests as tasks of the process-wide pool.
//
// A task owns everything it needs (its form excepted, which the caller keeps) and nothing of the
// client, so that the client may be destroyed first. Each counts as under way from its submission,
// and while it is connected its session is on a process-wide list. A stop of the library waits for
// those under way, and cuts off what takes too long: a thread that a slow peer keeps busy would
// otherwise still run while the library is unloaded, or while POCO's static objects are destroyed.
// What was begun before a stop connects no more after it.
//
//   state                        who may touch it              lock
//   Requests::underWay           any thread                    its own
//   Requests::connected, stops   any thread                    Requests::mutex
//   a session                    its task; shutdown() by a     Requests::mutex, under which it is
//                                stop of the library           listed and taken off the list

#include "HttpClient.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <Poco/NullStream.h>
#include <Poco/Timespan.h>
#include <Poco/URI.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <set>

#include "ThreadPool.h"
#include "internal/http/MaskedUrl.h"
#include "internal/log/UnitLog.h"
#include "internal/platform/Platform.h"
#include "internal/process/LibraryStop.h"
#include "internal/process/NeverDestroyed.h"
#include "internal/process/WorkInProgress.h"
#include "internal/tls/Tls.h"

namespace kel {

using Poco::Net::HTTPClientSession;
using Poco::Net::HTTPMessage;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;
using Poco::Net::SocketAddress;

namespace {

constexpr UnitLog log("src/common/HttpClient");

const Poco::Timespan::TimeDiff kConnectTimeout = 2 * Poco::Timespan::SECONDS;
const Poco::Timespan::TimeDiff kTransferTimeout = 10 * Poco::Timespan::SECONDS;

constexpr std::chrono::seconds kStopGrace(5);

struct Requests {
    WorkInProgress underWay;
    std::mutex mutex;
    // Guarded by mutex.
    std::set<HTTPClientSession*> connected;
    std::uint64_t stops = 0;
};

Requests& requests() {
    static NeverDestroyed<Requests> instance;
    return *instance;
}

void stopRequests() {
    Requests& all = requests();
    all.underWay.awaitNone(kStopGrace);
    const std::lock_guard<std::mutex> lock(all.mutex);
    ++all.stops;
    for (HTTPClientSession* session : all.connected) {
        try {
            session->socket().shutdown();
        } catch (const Poco::Exception&) {
            // The peer was faster.
        }
    }
}

// A request, from its submission to the return of its callback.
class Request {
public:
    Request() : _refused(processIsEnding()) {
        onLibraryStop(StopStage::kRequests, &stopRequests);
        const std::lock_guard<std::mutex> lock(requests().mutex);
        _stops = requests().stops;
    }

    /// @throws Poco::IllegalStateException  it was begun before a stop, or as the process ends.
    void addSession(HTTPClientSession& session) const {
        const std::lock_guard<std::mutex> lock(requests().mutex);
        if (_refused) throw Poco::IllegalStateException("the process is ending");
        if (_stops != requests().stops)
            throw Poco::IllegalStateException("the library was stopped");
        requests().connected.insert(&session);
    }

    static void removeSession(HTTPClientSession& session) {
        const std::lock_guard<std::mutex> lock(requests().mutex);
        requests().connected.erase(&session);
    }

private:
    const WorkInProgress::Item _counted{requests().underWay};
    const bool _refused;
    std::uint64_t _stops = 0;
};

void submit(std::function<void(const Request&)> task) {
    ThreadPool::defaultPool().start(
        [task = std::move(task), request = std::make_shared<Request>()] { task(*request); });
}

// To bound a connect, POCO makes the socket non-blocking, awaits it and makes it blocking again:
// nine calls into the system more than a connect that the system bounds itself.
class PlainSocket : public Poco::Net::StreamSocketImpl {
public:
    void connect(const SocketAddress& address, const Poco::Timespan& timeout) override {
        if (!platform::kSendTimeoutBoundsConnect) {
            return StreamSocketImpl::connect(address, timeout);
        }
        if (!initialized()) init(address.af());
        setSendTimeout(timeout);
        connectWithin(address);
    }

private:
    void connectWithin(const SocketAddress& address) {
        try {
            StreamSocketImpl::connect(address);
        } catch (const Poco::Exception& exc) {
            // The latter where a signal has interrupted the wait, which POCO then begins again.
            if (exc.code() != POCO_EINPROGRESS && exc.code() != POCO_EALREADY) throw;
            throw Poco::TimeoutException("connect timed out", address.toString());
        }
    }
};

// Is on the list before its first byte is sent, the handshake's included.
class ListedSession : public HTTPClientSession {
public:
    ListedSession(const Request& request, const Poco::Net::StreamSocket& socket)
        : HTTPClientSession(socket), _request(request) {}
    ~ListedSession() override { Request::removeSession(*this); }

protected:
    void connect(const SocketAddress& address) override {
        HTTPClientSession::connect(address);
        _request.addSession(*this);
        tls::shakeHands(socket());
    }

private:
    const Request& _request;
};

// The socket decides what is spoken; a body never goes unprotected to a TLS port.
Poco::Net::StreamSocket socketFor(const Poco::URI& uri) {
    if (uri.getScheme() == "https") return tls::clientSocket(uri.getHost());
    return Poco::Net::StreamSocket(new PlainSocket);
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
void exchange(const Request& listed, const std::string& url, const std::string& method,
              const HttpClient::ResponseCallback& callback, Send&& send) {
    const Poco::URI uri(url);
    ListedSession session(listed, socketFor(uri));
    session.setHost(uri.getHost());
    session.setPort(uri.getPort());
    session.setTimeout(kConnectTimeout, kTransferTimeout, kTransferTimeout);
    HTTPRequest request(method, requestTarget(uri), HTTPMessage::HTTP_1_1);
    send(session, request);
    HTTPResponse response;
    std::istream& body = session.receiveResponse(response);
    if (callback) callback(response.getStatus(), body);
}

// POCO quotes the part of a URL that it cannot parse, which may be the secret one.
std::string reasonFor(const std::string& url, const Poco::Exception& failure) {
    const bool quotes = dynamic_cast<const Poco::SyntaxException*>(&failure) != nullptr;
    return quotes && maskedUrl(url) != url ? failure.name() : failure.displayText();
}

// What every request's failure comes to, wherever it arose.
template <typename Call>
void answerFailure(const std::string& url, const HttpClient::ResponseCallback& callback,
                   Call&& call) {
    try {
        call();
    } catch (const Poco::Exception& exc) {
        log.error(
            Poco::format("requst url '%s' exception: %s", maskedUrl(url), reasonFor(url, exc)));
        Poco::NullInputStream none;
        callback(HTTPResponse::HTTP_BAD_REQUEST, none);
    }
}

template <typename Send>
void post(const Request& listed, const std::string& url,
          const HttpClient::ResponseCallback& callback, Send&& send) {
    answerFailure(url, callback, [&] {
        exchange(listed, url, HTTPRequest::HTTP_POST, callback,
                 [&](HTTPClientSession& session, HTTPRequest& request) {
                     session.setKeepAlive(true);
                     send(session, request);
                 });
    });
}

void postJson(const Request& listed, const std::string& url, const std::string& body,
              const HttpClient::ResponseCallback& callback) {
    post(listed, url, callback, [&](HTTPClientSession& session, HTTPRequest& request) {
        request.setContentType("application/json");
        request.setContentLength(static_cast<std::streamsize>(body.size()));
        session.sendRequest(request) << body << std::flush;
    });
}

void postForm(const Request& listed, const std::string& url, Poco::Net::HTMLForm& form,
              const HttpClient::ResponseCallback& callback) {
    post(listed, url, callback, [&](HTTPClientSession& session, HTTPRequest& request) {
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
    static NeverDestroyed<std::shared_ptr<HttpClient>> instance(createInstance());
    return *instance;
}

// POCO gives a pool its first thread at once, which would outlive the library in a client that is
// never destroyed.
HttpClient::HttpClient() : _thread_pool(new ThreadPool(1, 32, 60, 0)) {
    _thread_pool->stop();
}

HttpClient::~HttpClient() = default;

void HttpClient::doHttpRequest(std::string url, std::string body, ResponseCallback callback) {
    submit([url = std::move(url), body = std::move(body), callback = std::move(callback)](
               const Request& listed) { postJson(listed, url, body, callback); });
}

void HttpClient::doHttpRequest(std::string url, Poco::Net::HTMLForm& form,
                               ResponseCallback callback) {
    submit([url = std::move(url), &form, callback = std::move(callback)](const Request& listed) {
        postForm(listed, url, form, callback);
    });
}

void HttpClient::doHttpRequest(std::string url, ResponseCallback callback) {
    submit([url = std::move(url), callback = std::move(callback)](const Request& listed) {
        answerFailure(url, callback, [&] {
            exchange(listed, url, HTTPRequest::HTTP_GET, callback,
                     [](auto& session, auto& request) { session.sendRequest(request); });
        });
    });
}

void HttpClient::doHttpRequestSync(std::string url, std::string body, ResponseCallback callback) {
    postJson(Request(), url, body, callback);
}

}  // namespace kel
