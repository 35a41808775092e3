#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <set>

#include "../../HttpStatistics.h"
#include "../process/StoppableThreads.h"
#include "HttpConnection.h"
#include "ServerState.h"

namespace kel {

/// Accepts connections and serves each on a thread of its own pool. Held by whoever made it and by
/// its threads, so that requests in progress finish, with the callback they began with, after it
/// has been stopped and let go.
class ConnectionServer : public std::enable_shared_from_this<ConnectionServer> {
public:
    using Clock = std::chrono::steady_clock;

    ConnectionServer(const Poco::Net::ServerSocket& socket,
                     Poco::AutoPtr<Poco::Net::HTTPServerParams> params,
                     std::shared_ptr<const HttpConnection::Callback> callback,
                     const ServerTimes& times = {});

    /// Accepts connections until stop(). Once only.
    void start();

    /// Accepts no further connection, and closes those without a request in progress. Repeatable,
    /// one call at a time. Does nothing in a forked child, whose parent goes on serving.
    void stop();

    bool running() const noexcept { return !_state->stopping; }

    /// Waits until every connection is closed, but for the one whose callback calls this. One that
    /// a callback has handed over, to a WebSocket for example, does not count.
    /// @return false if `end` passed first.
    bool awaitRequestsInProgress(Clock::time_point end);

    /// Closes every connection, whatever it is doing.
    void abortConnections();

    HttpStatistics statistics() const;

    /// The threads of all servers.
    static StoppableThreads& threads();

private:
    // Elements of a list change hands without being copied.
    using Sockets = std::list<Poco::Net::StreamSocket>;

    void accept();
    void admit(Sockets& accepted);
    void refuse(const Poco::Net::StreamSocket& accepted);
    void lookAfterConnections();
    void provideThreads();
    bool wakeAcceptor();
    void closeWaiting();
    void listenAgain();

    void work();
    void serve(Sockets& accepted);
    void begin();
    void end();
    void addConnection(GuardedSocket& connection);
    void removeConnection(GuardedSocket& connection);
    void noteCrowd();

    const Poco::AutoPtr<Poco::Net::HTTPServerParams> _params;
    const std::shared_ptr<const HttpConnection::Callback> _callback;
    const std::shared_ptr<ServerState> _state;
    const unsigned long _process;
    const std::size_t _maxThreads;
    const std::size_t _maxQueued;

    // start() and stop() only, which do not run at the same time.
    std::unique_ptr<Poco::Thread> _acceptor;
    Poco::Net::ServerSocket _socket;  // also the acceptor's thread's between them

    // The acceptor's thread only.
    struct Refused {
        Poco::Net::StreamSocket socket;
        Clock::time_point closeAt;
    };
    std::deque<Refused> _refused;  // those whose client may still be reading the refusal
    Clock::time_point _lookedAfter;

    mutable std::mutex _mutex;
    // Guarded by _mutex.
    Sockets _queue;
    std::set<GuardedSocket*> _open;  // that may be closed by another thread than their own
    std::size_t _serving = 0;        // connections, until they are closed
    std::size_t _threads = 0;
    std::size_t _idleThreads = 0;  // those without a connection

    std::condition_variable _arrived;
    std::condition_variable _ended;
};

}  // namespace kel
