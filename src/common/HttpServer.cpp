// HttpServer.cpp - one callback behind an HTTP server, and the end of all servers.
//
// What accepts and serves is a ConnectionServer, a new one for each start(). Its threads hold it,
// so that requests in progress outlive a stop and the HttpServer. A process-wide list reaches those
// that run, so that the end of the process, and the unloading of the library, can stop them, wait
// for requests in progress within bounds, and join the threads.

#include "HttpServer.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <cstdlib>
#include <list>
#include <mutex>
#include <utility>

#include "internal/http/AllServers.h"
#include "internal/http/ConnectionServer.h"
#include "internal/platform/Platform.h"
#include "internal/process/LibraryStop.h"
#include "internal/process/NeverDestroyed.h"

namespace kel {

namespace {

using Clock = ConnectionServer::Clock;

constexpr std::chrono::seconds kRequestGrace(10);
// For threads whose connections have been closed; only a callback that never returns takes longer.
constexpr std::chrono::seconds kThreadGrace(1);
constexpr std::chrono::hours kLongest(24);  // a wait that is longer could exceed the clock's range

struct Servers {
    std::mutex mutex;
    std::list<std::weak_ptr<ConnectionServer>> all;  // guarded by mutex
};

Servers& servers() {
    static NeverDestroyed<Servers> instance;
    return *instance;
}

// The result is to be destroyed without the lock.
std::list<std::shared_ptr<ConnectionServer>> startedServers(bool take = false) {
    std::list<std::shared_ptr<ConnectionServer>> started;
    const std::lock_guard<std::mutex> lock(servers().mutex);
    for (const auto& server : servers().all) {
        if (auto running = server.lock()) started.push_back(std::move(running));
    }
    if (take) servers().all.clear();
    return started;
}

// A callback that never returns holds this up once: the servers are taken off the list.
void stopAll() {
    const auto all = startedServers(true);
    for (const auto& server : all) server->stop();
    const auto end = Clock::now() + kRequestGrace;
    for (const auto& server : all) server->awaitRequestsInProgress(end);
    for (const auto& server : all) server->abortConnections();
    ConnectionServer::threads().joinAll(kThreadGrace);
}

// Handlers use what the host made before it started a server, and destroys after this has run.
void stopAllAtExit() {
    static const unsigned long process = platform::currentProcessId();
    static const int registered = std::atexit([] {
        if (platform::currentProcessId() == process) stopAll();
    });
    static_cast<void>(registered);
}

void registerForStop(const std::shared_ptr<ConnectionServer>& server) {
    onLibraryStop(StopStage::kRequests, &stopAll);
    if (platform::canJoinAtExit()) stopAllAtExit();
    const std::lock_guard<std::mutex> lock(servers().mutex);
    servers().all.remove_if([](const auto& earlier) { return earlier.expired(); });
    servers().all.push_back(server);
}

}  // namespace

HttpStatistics httpStatisticsOfAllServers() {
    HttpStatistics numbers = HttpCounters::ofProcess().snapshot();
    for (const auto& server : startedServers()) {
        const HttpStatistics its = server->statistics();
        numbers.connections += its.connections;
        numbers.queued += its.queued;
    }
    return numbers;
}

struct HttpServer::Inside {
    Poco::Net::ServerSocket socket;
    Poco::AutoPtr<Poco::Net::HTTPServerParams> params;
    std::shared_ptr<const Callback> callback;

    std::mutex lifecycle;  // one start() or stop() at a time; taken before mutex
    std::mutex mutex;
    std::shared_ptr<ConnectionServer> server;  // guarded by mutex; empty before the first start()

    std::shared_ptr<ConnectionServer> current() {
        const std::lock_guard<std::mutex> lock(mutex);
        return server;
    }
};

std::shared_ptr<HttpServer> HttpServer::createInstance(
    const Poco::Net::ServerSocket& socket, Poco::AutoPtr<Poco::Net::HTTPServerParams> params,
    Callback callback) {
    return std::shared_ptr<HttpServer>(new HttpServer(socket, params, std::move(callback)));
}

HttpServer::HttpServer(const Poco::Net::ServerSocket& socket,
                       Poco::AutoPtr<Poco::Net::HTTPServerParams> params, Callback callback)
    : _inside(new Inside) {
    if (params.isNull()) throw Poco::NullPointerException("server parameters");
    _inside->socket = socket;
    _inside->params = params;
    _inside->callback = std::make_shared<const Callback>(std::move(callback));
}

HttpServer::~HttpServer() {
    stop();
}

void HttpServer::start() {
    const std::lock_guard<std::mutex> lifecycle(_inside->lifecycle);
    if (running()) throw Poco::IllegalStateException("the server is running");
    if (processIsEnding()) return;
    const auto server =
        std::make_shared<ConnectionServer>(_inside->socket, _inside->params, _inside->callback);
    server->start();
    registerForStop(server);
    const std::lock_guard<std::mutex> lock(_inside->mutex);
    _inside->server = server;
}

void HttpServer::stop() {
    const std::lock_guard<std::mutex> lifecycle(_inside->lifecycle);
    if (const auto server = _inside->current()) server->stop();
}

bool HttpServer::stop(std::chrono::milliseconds patience) {
    using std::chrono::milliseconds;
    const auto end = Clock::now() + std::clamp<milliseconds>(patience, milliseconds(0), kLongest);
    stop();
    const auto server = _inside->current();
    return !server || server->awaitRequestsInProgress(end);
}

bool HttpServer::running() const {
    const auto server = _inside->current();
    return server && server->running();
}

HttpStatistics HttpServer::statistics() const {
    const auto server = _inside->current();
    return server ? server->statistics() : HttpStatistics();
}

Poco::Net::ServerSocket serverSocket(const Poco::Net::SocketAddress& address, int backlog) {
    Poco::Net::ServerSocket socket;
    socket.bind(address, platform::reusesListeningAddress(), false);
    socket.listen(backlog);
    return socket;
}

}  // namespace kel
