// ConnectionServer.cpp - the threads between a listening socket and the connections' requests.
//
// state                           who may touch it
// _socket                         start() and stop(), and the acceptor's thread between them
// _refused, _lookedAfter          the acceptor's thread
// _queue, _open, the counts       any thread, with _mutex
// _state                          any thread; atomic
//
// A worker owns its connection; others reach it through _open only, where it stands from before its
// first byte is read until after its last is written. Nothing is called out with _mutex held.
//
// An accepted socket has one reference, which the acceptor hands to a worker under _mutex: with
// two, either thread might be the one that destroys the socket. A connection counts until that is
// done.

#include "ConnectionServer.h"

#include <Poco/ErrorHandler.h>
#include <Poco/Exception.h>

#include <utility>

#include "../platform/Platform.h"
#include "../process/NeverDestroyed.h"

namespace kel {

namespace {

using Poco::Net::HTTPServerParams;
using Poco::Net::ServerSocket;
using Poco::Net::StreamSocket;

constexpr std::size_t kDefaultThreads = 16;
constexpr std::chrono::milliseconds kSlice(250);
constexpr std::chrono::seconds kRefusalTime(1);
constexpr std::size_t kMaxRefused = 64;
const std::string kRefusal =
    "HTTP/1.1 503 Service Unavailable\r\nConnection: Close\r\nRetry-After: 1\r\n"
    "Content-Length: 0\r\n\r\n";

thread_local const ConnectionServer* servingOnThisThread = nullptr;

std::size_t threadsOf(const HTTPServerParams& params) {
    const int threads = params.getMaxThreads();
    return threads > 0 ? static_cast<std::size_t>(threads) : kDefaultThreads;
}

// Where POCO's own server would report it: a host may have set a handler.
template <typename Call>
bool reportExceptions(Call&& call) {
    try {
        call();
        return true;
    } catch (const Poco::Exception& exc) {
        Poco::ErrorHandler::handle(exc);
    } catch (const std::exception& exc) {
        Poco::ErrorHandler::handle(exc);
    } catch (...) {
        Poco::ErrorHandler::handle();
    }
    return false;
}

}  // namespace

StoppableThreads& ConnectionServer::threads() {
    static NeverDestroyed<StoppableThreads> instance;
    return *instance;
}

ConnectionServer::ConnectionServer(const ServerSocket& socket,
                                   Poco::AutoPtr<HTTPServerParams> params,
                                   std::shared_ptr<const HttpConnection::Callback> callback,
                                   const ServerTimes& times)
    : _params(params),
      _callback(std::move(callback)),
      _state(std::make_shared<ServerState>(times)),
      _process(platform::currentProcessId()),
      _maxThreads(threadsOf(*params)),
      _maxQueued(static_cast<std::size_t>(std::max(0, params->getMaxQueued()))),
      _socket(socket) {}

void ConnectionServer::start() {
    listenAgain();
    _acceptor = std::make_unique<Poco::Thread>("HttpAcceptor");
    _acceptor->startFunc([self = shared_from_this()] { self->accept(); });
}

// A socket that an earlier server on it has stopped does not listen any more.
void ConnectionServer::listenAgain() {
    int listening = 0;
    _socket.impl()->getOption(SOL_SOCKET, SO_ACCEPTCONN, listening);
    if (listening == 0) _socket.listen();
}

void ConnectionServer::stop() {
    if (platform::currentProcessId() != _process || _state->stopping.exchange(true)) return;
    const bool stillListening = !wakeAcceptor();
    if (_acceptor) _acceptor->join();
    if (stillListening) _socket.close();
    _socket = ServerSocket();  // requests in progress must not keep the host's from being destroyed
    closeWaiting();
}

void ConnectionServer::closeWaiting() {
    Sockets waiting;
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        waiting.swap(_queue);
        for (GuardedSocket* connection : _open) connection->closeIfIdle();
        _arrived.notify_all();
    }
    waiting.clear();
}

// The host may hold the socket for long: its port must not take connections that nobody serves.
// @return false where the system can only close a listening socket, as Windows.
bool ConnectionServer::wakeAcceptor() {
    try {
        _socket.impl()->shutdown();
        return true;
    } catch (const Poco::Exception&) {
        return false;
    }
}

bool ConnectionServer::awaitRequestsInProgress(Clock::time_point end) {
    const std::size_t own = servingOnThisThread == this ? 1 : 0;
    std::unique_lock<std::mutex> lock(_mutex);
    return _ended.wait_until(lock, end, [&] { return _serving <= own; });
}

void ConnectionServer::abortConnections() {
    const std::lock_guard<std::mutex> lock(_mutex);
    for (GuardedSocket* connection : _open) connection->abort();
}

HttpStatistics ConnectionServer::statistics() const {
    HttpStatistics numbers = _state->counters.snapshot();
    const std::lock_guard<std::mutex> lock(_mutex);
    numbers.connections = _serving;
    numbers.queued = _queue.size();
    return numbers;
}

void ConnectionServer::accept() {
    while (running()) {
        try {
            lookAfterConnections();
            if (_socket.poll(Poco::Timespan(0, kSlice.count() * 1000), StreamSocket::SELECT_READ)) {
                Sockets accepted;
                accepted.push_back(_socket.acceptConnection());
                admit(accepted);
            }
        } catch (...) {
            if (!running()) break;
            reportExceptions([] { throw; });
            // Out of memory or descriptors, for example: others need time to release theirs.
            Poco::Thread::sleep(50);
        }
    }
    _refused.clear();
}

void ConnectionServer::admit(Sockets& accepted) {
    std::unique_lock<std::mutex> lock(_mutex);
    const std::size_t freeThreads = _maxThreads - (_threads - _idleThreads);
    if (_queue.size() >= freeThreads + _maxQueued) {
        lock.unlock();
        return refuse(accepted.front());
    }
    _queue.splice(_queue.end(), accepted);
    provideThreads();
    noteCrowd();
    _arrived.notify_one();
}

// Without waiting, which TLS would have to do; its client sees the connection closed.
void ConnectionServer::refuse(const StreamSocket& accepted) {
    _state->countRefusal();
    if (accepted.secure()) return;
    StreamSocket socket(accepted);
    try {
        socket.sendBytes(kRefusal.data(), static_cast<int>(kRefusal.size()));
        socket.shutdownSend();
    } catch (const Poco::Exception&) {
        return;  // the client has closed it; those who wait to be accepted need not wait for that
    }
    _refused.push_back({socket, Clock::now() + kRefusalTime});
    if (_refused.size() > kMaxRefused) _refused.pop_front();
}

void ConnectionServer::lookAfterConnections() {
    const auto now = Clock::now();
    if (now - _lookedAfter < kSlice) return;
    _lookedAfter = now;
    while (!_refused.empty() && _refused.front().closeAt <= now) _refused.pop_front();
    const std::lock_guard<std::mutex> lock(_mutex);
    for (GuardedSocket* connection : _open) connection->closeIfOverdue(now);
    provideThreads();  // again, where the system had none before
}

// The caller holds the mutex. A new thread counts as idle until it has taken a connection.
void ConnectionServer::provideThreads() {
    reportExceptions([this] {
        while (_queue.size() > _idleThreads && _threads < _maxThreads) {
            threads().start("HttpConnection", _params->getThreadPriority(),
                            [self = shared_from_this()] { self->work(); });
            ++_threads;
            ++_idleThreads;
        }
    });
}

// The caller holds the mutex.
void ConnectionServer::noteCrowd() {
    _state->crowded = _queue.size() > _idleThreads;
    if (_state->crowded) _state->noteWaiting(_queue.size() - _idleThreads);
}

void ConnectionServer::work() {
    const std::chrono::milliseconds idle(_params->getThreadIdleTime().totalMilliseconds());
    const auto needed = [this] { return !running() || !_queue.empty(); };
    std::unique_lock<std::mutex> lock(_mutex);
    while (_arrived.wait_for(lock, idle, needed) && !_queue.empty()) {
        Sockets taken;
        taken.splice(taken.end(), _queue, _queue.begin());
        --_idleThreads;
        noteCrowd();
        lock.unlock();
        reportExceptions([&] { serve(taken); });
        lock.lock();
        ++_idleThreads;
        noteCrowd();
    }
    --_threads;
    --_idleThreads;
}

void ConnectionServer::serve(Sockets& accepted) {
    struct Serving {
        ConnectionServer& server;
        explicit Serving(ConnectionServer& its) : server(its) { server.begin(); }
        ~Serving() { server.end(); }
    };
    struct Listed {
        ConnectionServer& server;
        GuardedSocket& socket;
        Listed(ConnectionServer& its, GuardedSocket& listed) : server(its), socket(listed) {
            server.addConnection(socket);
        }
        ~Listed() { server.removeConnection(socket); }
    };
    const Serving serving(*this);
    HttpConnection connection(accepted.front(), _state, _params, *_callback);
    accepted.clear();
    const Listed listed(*this, connection.socket());
    connection.serve();
}

void ConnectionServer::begin() {
    servingOnThisThread = this;
    const std::lock_guard<std::mutex> lock(_mutex);
    ++_serving;
}

void ConnectionServer::end() {
    servingOnThisThread = nullptr;
    const std::lock_guard<std::mutex> lock(_mutex);
    --_serving;
    _ended.notify_all();
}

void ConnectionServer::addConnection(GuardedSocket& connection) {
    const std::lock_guard<std::mutex> lock(_mutex);
    _open.insert(&connection);
}

void ConnectionServer::removeConnection(GuardedSocket& connection) {
    const std::lock_guard<std::mutex> lock(_mutex);
    _open.erase(&connection);
}

}  // namespace kel
