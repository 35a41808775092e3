// HttpServer.cpp - one callback behind POCO's HTTP server.
//
// POCO's connection threads outlive the server object: a request in progress, or a client that
// keeps its connection open, holds a thread of POCO's default pool. A server and its connections
// share one handler factory, which goes, and the callback with it, when the last of them does.
// Until then it is on a process-wide list; through it the end of the process closes what is still
// open, after the callbacks in progress have returned. Otherwise POCO, which joins its pool at
// exit, would wait 10 s for each idle connection and then carry on without it.
//
// No lock is held while what a callback captured is destroyed: that may stop a server in turn.

#include "HttpServer.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/ThreadPool.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <list>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

#include "internal/platform/Platform.h"
#include "internal/process/LibraryStop.h"

namespace kel {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kThreads = 16;
constexpr std::chrono::seconds kCallbackGrace(10);
// From a callback's return to its reply on the wire: POCO writes it out afterwards.
constexpr std::chrono::milliseconds kReplyGrace(100);

// POCO makes a connection's thread only when one arrives, and never retries: with all threads still
// held by the connections of an earlier server, a new one would leave its first clients waiting.
void provideThreads() {
    Poco::ThreadPool& pool = Poco::ThreadPool::defaultPool();
    const int missing = kThreads - pool.available();
    if (missing > 0) pool.addCapacity(missing);
}

// POCO up to 1.12 wakes only one of a stopped server's idle threads; the end of the process waits
// for the others.
void shortenIdleTime(Poco::Net::HTTPServerParams& params) {
    const Poco::Timespan longest(1, 0);
    if (params.getThreadIdleTime() > longest) params.setThreadIdleTime(longest);
}

// Whether what follows on the connection is another request, not the rest of this one's body.
bool bodyConsumed(Poco::Net::HTTPServerRequest& request) {
    const bool announced = request.getChunkedTransferEncoding() ||
                           (request.hasContentLength() && request.getContentLength64() != 0);
    return !announced || request.stream().eof();
}

}  // namespace

struct HttpServer::Counters {
    std::atomic<std::uint64_t> requests{0};
    std::array<std::atomic<std::uint64_t>, 10> byClass{};
};

class HttpServer::RequestHandlerFactory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    RequestHandlerFactory(Callback callback, std::shared_ptr<Counters> counters);
    ~RequestHandlerFactory() override;

    Poco::Net::HTTPRequestHandler* createRequestHandler(
        const Poco::Net::HTTPServerRequest&) override;

    // Ends the connections that hold this factory, whatever they are doing.
    void closeConnections() { serverStopped(this, true); }

private:
    Callback _callback;
    const std::shared_ptr<Counters> _counters;
};

// Never destroyed: connection threads use it until the last one has ended.
struct HttpServer::Process {
    std::mutex mutex;
    // Guarded by mutex.
    std::list<std::weak_ptr<HttpServer>> servers;
    std::set<RequestHandlerFactory*> factories;
    int callbacks = 0;                            // in progress
    std::chrono::seconds grace = kCallbackGrace;  // for these; the first stop uses it up
    Clock::time_point lastCallback;

    std::condition_variable callbackEnded;

    void enter() {
        const std::lock_guard<std::mutex> lock(mutex);
        ++callbacks;
    }

    void leave() {
        const std::lock_guard<std::mutex> lock(mutex);
        --callbacks;
        lastCallback = Clock::now();
        callbackEnded.notify_all();
    }

    void add(const std::shared_ptr<HttpServer>& server) {
        const std::lock_guard<std::mutex> lock(mutex);
        servers.remove_if([](const auto& earlier) { return earlier.expired(); });
        servers.push_back(server);
    }
};

class HttpServer::RequestHandler : public Poco::Net::HTTPRequestHandler {
public:
    RequestHandler(Callback callback, std::shared_ptr<Counters> counters)
        : _callback(std::move(callback)), _counters(std::move(counters)) {}

    void handleRequest(Poco::Net::HTTPServerRequest& request,
                       Poco::Net::HTTPServerResponse& response) override {
        if (!_callback) throw Poco::NullPointerException("request handle callabck is empty");
        struct InProgress {
            InProgress() { process().enter(); }
            ~InProgress() { process().leave(); }
        } inProgress;
        ++_counters->requests;
        _callback(request, response);
        ++_counters->byClass[static_cast<std::size_t>(response.getStatus() / 100) % 10];
        // A client left without a reply must not wait for one.
        if (!response.sent() || !bodyConsumed(request)) response.setKeepAlive(false);
    }

private:
    Callback _callback;
    const std::shared_ptr<Counters> _counters;
};

HttpServer::RequestHandlerFactory::RequestHandlerFactory(Callback callback,
                                                         std::shared_ptr<Counters> counters)
    : _callback(std::move(callback)), _counters(std::move(counters)) {
    const std::lock_guard<std::mutex> lock(process().mutex);
    process().factories.insert(this);
}

HttpServer::RequestHandlerFactory::~RequestHandlerFactory() {
    const std::lock_guard<std::mutex> lock(process().mutex);
    process().factories.erase(this);
}

Poco::Net::HTTPRequestHandler* HttpServer::RequestHandlerFactory::createRequestHandler(
    const Poco::Net::HTTPServerRequest&) {
    return new RequestHandler(_callback, _counters);
}

HttpServer::Process& HttpServer::process() {
    static Process& instance = []() -> Process& {
        onLibraryStop(StopStage::kRequests, &HttpServer::stopAll);
        // From 1.13 on POCO's pool, which exists by now, goes before the library is told of the
        // end.
        if (platform::canJoinAtExit()) std::atexit(&HttpServer::stopAll);
        return *new Process;
    }();
    return instance;
}

std::shared_ptr<HttpServer> HttpServer::createInstance(
    const Poco::Net::ServerSocket& socket, Poco::AutoPtr<Poco::Net::HTTPServerParams> params,
    Callback callback) {
    const std::shared_ptr<HttpServer> server(new HttpServer(socket, params, std::move(callback)));
    process().add(server);
    return server;
}

HttpServer::HttpServer(const Poco::Net::ServerSocket& socket,
                       Poco::AutoPtr<Poco::Net::HTTPServerParams> params, Callback callback)
    : _counters(std::make_shared<Counters>()), _server(nullptr) {
    provideThreads();
    shortenIdleTime(*params);
    const Poco::Net::HTTPRequestHandlerFactory::Ptr factory(
        new RequestHandlerFactory(std::move(callback), _counters));
    _server = new Poco::Net::HTTPServer(factory, socket, params);
}

HttpServer::~HttpServer() {
    delete _server;
    _server = nullptr;
}

void HttpServer::start() {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (_server) _server->start();
}

void HttpServer::stop() {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (_server) _server->stop();
}

bool HttpServer::stop(std::chrono::milliseconds patience) {
    stop();
    std::unique_lock<std::mutex> lock(process().mutex);
    return process().callbackEnded.wait_for(lock, patience,
                                            [] { return process().callbacks == 0; });
}

HttpStatistics HttpServer::statistics() const {
    const auto byClass = [this](int n) {
        return _counters->byClass[static_cast<std::size_t>(n)].load();
    };
    HttpStatistics numbers;
    numbers.connections = static_cast<std::uint64_t>(_server->currentConnections());
    numbers.queued = static_cast<std::uint64_t>(_server->queuedConnections());
    numbers.refused = static_cast<std::uint64_t>(_server->refusedConnections());
    numbers.requests = _counters->requests;
    numbers.status2xx = byClass(2);
    numbers.status3xx = byClass(3);
    numbers.status4xx = byClass(4);
    numbers.status5xx = byClass(5);
    return numbers;
}

void HttpServer::stopAll() {
    Process& all = process();
    std::unique_lock<std::mutex> lock(all.mutex);
    const auto servers = all.servers;
    lock.unlock();
    for (const auto& held : servers) {
        if (const auto server = held.lock()) server->stop();
    }
    lock.lock();
    const std::chrono::seconds grace = std::exchange(all.grace, {});
    all.callbackEnded.wait_for(lock, grace, [&] { return all.callbacks == 0; });
    const Clock::time_point written = all.lastCallback + kReplyGrace;
    lock.unlock();
    std::this_thread::sleep_until(written);
    lock.lock();
    for (auto* factory : all.factories) factory->closeConnections();
}

}  // namespace kel
