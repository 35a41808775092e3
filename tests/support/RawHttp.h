#pragma once

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// A client that puts bytes on the wire as they are. Receiving throws Poco::TimeoutException after
/// 20 s of silence.
class RawClient {
public:
    explicit RawClient(int port);

    RawClient& send(const std::string& bytes);

    /// Everything until the server closes the connection.
    std::string readAll();

    /// One reply: the head, and the body that its Content-Length or chunks announce.
    std::string readReply();

    Poco::Net::StreamSocket& socket() { return _socket; }

private:
    Poco::Net::StreamSocket _socket;
    std::string _ahead;
};

/// One request over a connection of its own; the whole reply, as far as the server closes after it.
std::string rawExchange(int port, const std::string& bytes);

/// "GET <target> HTTP/1.1" with a Host header.
std::string getRequest(const std::string& target);

/// POST with a Content-Length.
std::string postRequest(const std::string& target, const std::string& body);

/// The reply with the value of its Date header cut out.
std::string withoutDate(std::string reply);

/// A server on a loopback port that answers as the test says. Its script gets each connection after
/// the request has been read; the connection is closed when the script returns.
class ScriptedServer {
public:
    using Script = std::function<void(Poco::Net::StreamSocket& connection)>;

    explicit ScriptedServer(Script script);
    /// A script that sends `reply`.
    explicit ScriptedServer(const std::string& reply);
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    int port() const;
    std::string url(const std::string& target = "/") const;

    /// The requests so far, as they came over the wire, once there are `count`.
    /// @throws std::runtime_error  20 s have passed first.
    std::vector<std::string> awaitRequests(std::size_t count);

private:
    void accept();
    void serve(Poco::Net::StreamSocket connection);

    Script _script;
    Poco::Net::ServerSocket _socket;
    std::mutex _mutex;
    std::condition_variable _changed;
    // Guarded by _mutex.
    std::vector<std::string> _requests;
    std::vector<Poco::Net::StreamSocket> _connections;
    std::vector<std::thread> _threads;
    bool _stopped = false;
    std::thread _acceptor;
};

/// A script for ScriptedServer: says nothing until the peer closes.
void staySilent(Poco::Net::StreamSocket& connection);
