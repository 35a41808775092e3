#pragma once

#include <Poco/Net/ServerSocket.h>

#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <vector>

/// One end of a connection, for bytes as they are; 20 s of silence are a Poco::TimeoutException.
class RawClient : public Poco::Net::StreamSocket {
public:
    explicit RawClient(const StreamSocket& connected) : StreamSocket(connected) {
        setReceiveTimeout(Poco::Timespan(20, 0));
    }
    explicit RawClient(Poco::UInt16 port)
        : RawClient(StreamSocket(Poco::Net::SocketAddress("127.0.0.1", port))) {}

    RawClient& send(const std::string& bytes) {
        sendBytes(bytes.data(), static_cast<int>(bytes.size()));
        return *this;
    }

    /// A request or a reply, up to the end that it announces or else that of the connection; the
    /// value of its Date header is cut out.
    std::string read() {
        std::string bytes;
        char block[4096];
        for (int length = 1; length > 0 && !isWhole(bytes);) {
            length = receiveBytes(block, sizeof block);
            bytes.append(block, static_cast<std::size_t>(length));
        }
        const auto date = bytes.find("Date: ");
        if (date != std::string::npos) bytes.erase(date + 4, bytes.find("\r\n", date) - date - 4);
        return bytes;
    }

private:
    static bool isWhole(const std::string& bytes) {
        const auto body = bytes.find("\r\n\r\n") + 4, field = bytes.find("Content-Length: ");
        if (field < body) return bytes.size() - body >= std::stoul(&bytes[bytes.find(' ', field)]);
        return bytes.starts_with("HTTP/") ? bytes.ends_with("\r\n0\r\n\r\n") : body >= 4;
    }
};

/// A request that announces the length of its body; `line` is its method and target.
inline std::string request(std::string line, std::string body = "", std::string headers = "") {
    return line + " HTTP/1.1\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

/// A JSON list of equal values.
inline std::string listOf(const std::string& value, int count) {
    std::string list = "[" + value;
    for (int i = 1; i < count; ++i) list += "," + value;
    return list + "]";
}

/// A server on a loopback port. Its script gets each connection after the request has been read;
/// the connection is closed when the script returns.
class ScriptedServer {
public:
    explicit ScriptedServer(std::function<void(RawClient&)> script) : _script(std::move(script)) {}
    explicit ScriptedServer(const std::string& reply)
        : ScriptedServer([reply](RawClient& peer) { peer.send(reply); }) {}
    ~ScriptedServer() { _socket.impl()->shutdown(); }  // ends accept()

    std::string url(const std::string& target = "/") const {
        return "http://" + _socket.address().toString() + target;
    }

    /// The requests so far, as they came over the wire, once there are `count` or 20 s have passed.
    std::vector<std::string> awaitRequests(std::size_t count) {
        std::unique_lock<std::mutex> lock(_mutex);
        _arrived.wait_for(lock, std::chrono::seconds(20),
                          [&] { return _requests.size() >= count; });
        return _requests;
    }

private:
    void accept() {
        std::vector<std::future<void>> served;  // waits for them, and drops what they throw
        while (true) {
            const RawClient peer(_socket.acceptConnection());
            served.push_back(std::async(std::launch::async, [this, peer] { serve(peer); }));
        }
    }

    void serve(RawClient peer) {
        const std::string request = peer.read();
        std::unique_lock<std::mutex> lock(_mutex);
        _requests.push_back(request);
        lock.unlock();
        _arrived.notify_all();
        _script(peer);
        peer.shutdown();
    }

    const std::function<void(RawClient&)> _script;
    Poco::Net::ServerSocket _socket{Poco::Net::SocketAddress("127.0.0.1", 0)};
    std::mutex _mutex;
    std::condition_variable _arrived;
    std::vector<std::string> _requests;  // guarded by _mutex
    std::future<void> _acceptor = std::async(std::launch::async, [this] { accept(); });
};
