#pragma once

#include <Poco/Net/ServerSocket.h>

#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "Await.h"

/// One end of a connection, for bytes as they are. Receiving throws Poco::TimeoutException after
/// 20 s of silence.
class RawClient {
public:
    explicit RawClient(const Poco::Net::StreamSocket& connected) : _socket(connected) {
        _socket.setReceiveTimeout(Poco::Timespan(20, 0));
    }
    explicit RawClient(int port)
        : RawClient(Poco::Net::StreamSocket(
              Poco::Net::SocketAddress("127.0.0.1", static_cast<Poco::UInt16>(port)))) {}

    Poco::Net::StreamSocket& socket() { return _socket; }

    RawClient& send(const std::string& bytes) {
        _socket.sendBytes(bytes.data(), static_cast<int>(bytes.size()));
        return *this;
    }

    /// One reply, up to its last chunk or else the end of the connection; the value of its Date
    /// header is cut out.
    std::string readReply() {
        const auto whole = [](const std::string& reply) {
            return reply.ends_with("\r\n0\r\n\r\n");
        };
        std::string reply = readUntil(whole);
        const auto date = reply.find("Date: ");
        if (date != std::string::npos) reply.erase(date + 4, reply.find("\r\n", date) - date - 4);
        return reply;
    }

    /// A request's head and the body that it announces.
    std::string readRequest() {
        const std::string field = "Content-Length: ";
        return readUntil([&](const std::string& request) {
            const auto body = request.find("\r\n\r\n") + 4, length = request.find(field);
            if (body < 4 || length > body) return body >= 4;
            return request.size() >= body + std::stoul(request.substr(length + field.size()));
        });
    }

private:
    std::string readUntil(const std::function<bool(const std::string&)>& whole) {
        std::string bytes;
        char block[4096];
        for (int length = 1; length > 0 && !whole(bytes);) {
            length = _socket.receiveBytes(block, sizeof block);
            bytes.append(block, static_cast<std::size_t>(length));
        }
        return bytes;
    }

    Poco::Net::StreamSocket _socket;
};

/// The reply to one request over a connection of its own.
inline std::string rawExchange(int port, const std::string& bytes) {
    return RawClient(port).send(bytes).readReply();
}

inline std::string getRequest(const std::string& target) {
    return "GET " + target + " HTTP/1.1\r\n\r\n";
}

inline std::string postRequest(const std::string& target, const std::string& body) {
    return "POST " + target + " HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

/// A server on a loopback port. Its script gets each connection after the request has been read;
/// the connection is closed when the script returns.
class ScriptedServer {
public:
    using Script = std::function<void(RawClient& peer)>;
    explicit ScriptedServer(Script script) : _script(std::move(script)) {}
    explicit ScriptedServer(const std::string& reply)
        : ScriptedServer([reply](RawClient& peer) { peer.send(reply); }) {}
    ~ScriptedServer() {
        _stopped = true;
        const RawClient wakeAcceptor(_socket.address().port());
    }

    std::string url(const std::string& target = "/") const {
        return "http://" + _socket.address().toString() + target;
    }

    /// The requests so far, as they came over the wire, once there are `count` or 20 s have passed.
    std::vector<std::string> awaitRequests(std::size_t count) {
        std::vector<std::string> requests;
        await([&] {
            const std::lock_guard<std::mutex> lock(_mutex);
            requests = _requests;
            return requests.size() >= count;
        });
        return requests;
    }

private:
    void accept() {
        std::vector<std::future<void>> served;  // waits for them, and drops what they throw
        while (true) {
            const RawClient peer(_socket.acceptConnection());
            if (_stopped) return;
            served.push_back(std::async(std::launch::async, [this, peer] { serve(peer); }));
        }
    }

    void serve(RawClient peer) {
        const std::string request = peer.readRequest();
        std::unique_lock<std::mutex> lock(_mutex);
        _requests.push_back(request);
        lock.unlock();
        _script(peer);
        peer.socket().shutdown();
    }

    const Script _script;
    Poco::Net::ServerSocket _socket{Poco::Net::SocketAddress("127.0.0.1", 0)};
    std::atomic<bool> _stopped{false};
    std::mutex _mutex;
    std::vector<std::string> _requests;  // guarded by _mutex
    std::future<void> _acceptor = std::async(std::launch::async, [this] { accept(); });
};
