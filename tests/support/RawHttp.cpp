#include "RawHttp.h"

#include <Poco/Exception.h>

#include <chrono>
#include <stdexcept>
#include <utility>

using Poco::Net::SocketAddress;
using Poco::Net::StreamSocket;

namespace {

const Poco::Timespan kPatience(20, 0);

// Appends what comes next; false at the end of the connection.
bool receive(StreamSocket& socket, std::string& bytes) {
    char block[4096];
    const int length = socket.receiveBytes(block, sizeof block);
    if (length > 0) bytes.append(block, static_cast<std::size_t>(length));
    return length > 0;
}

// Length of the message that `bytes` begin with; 0 as long as it is not whole.
std::size_t messageLength(const std::string& bytes) {
    const auto head = bytes.find("\r\n\r\n");
    if (head == std::string::npos) return 0;
    if (bytes.find("chunked") < head) {
        const auto end = bytes.find("\r\n0\r\n\r\n", head);
        return end == std::string::npos ? 0 : end + 7;
    }
    const std::string field = "Content-Length: ";
    const auto length = bytes.find(field);
    const std::size_t body = length < head ? std::stoul(bytes.substr(length + field.size())) : 0;
    return bytes.size() >= head + 4 + body ? head + 4 + body : 0;
}

// Reads on until `bytes` begin with a whole message; returns its length, or 0 at an early end.
std::size_t readMessage(StreamSocket& socket, std::string& bytes) {
    while (messageLength(bytes) == 0) {
        if (!receive(socket, bytes)) return 0;
    }
    return messageLength(bytes);
}

}  // namespace

RawClient::RawClient(int port) {
    _socket.connect(SocketAddress("127.0.0.1", static_cast<Poco::UInt16>(port)));
    _socket.setReceiveTimeout(kPatience);
    _socket.setNoDelay(true);
}

RawClient& RawClient::send(const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        sent += static_cast<std::size_t>(
            _socket.sendBytes(bytes.data() + sent, static_cast<int>(bytes.size() - sent)));
    }
    return *this;
}

std::string RawClient::readAll() {
    while (receive(_socket, _ahead)) {
    }
    return std::exchange(_ahead, {});
}

std::string RawClient::readReply() {
    const std::size_t length = readMessage(_socket, _ahead);
    const std::string reply = _ahead.substr(0, length);
    _ahead.erase(0, length);
    return reply;
}

std::string rawExchange(int port, const std::string& bytes) {
    return RawClient(port).send(bytes).readAll();
}

std::string getRequest(const std::string& target) {
    return "GET " + target + " HTTP/1.1\r\nHost: localhost\r\n\r\n";
}

std::string postRequest(const std::string& target, const std::string& body) {
    return "POST " + target +
           " HTTP/1.1\r\nHost: localhost\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

std::string withoutDate(std::string reply) {
    const auto date = reply.find("Date: ");
    if (date != std::string::npos) reply.erase(date + 4, reply.find("\r\n", date) - date - 4);
    return reply;
}

ScriptedServer::ScriptedServer(Script script)
    : _script(std::move(script)), _socket(SocketAddress("127.0.0.1", 0)) {
    _acceptor = std::thread([this] { accept(); });
}

ScriptedServer::ScriptedServer(const std::string& reply)
    : ScriptedServer([reply](StreamSocket& connection) {
          connection.sendBytes(reply.data(), static_cast<int>(reply.size()));
      }) {}

ScriptedServer::~ScriptedServer() {
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _stopped = true;
        for (auto& connection : _connections) {
            try {
                connection.shutdown();
            } catch (const Poco::Exception&) {
                // The peer was faster.
            }
        }
    }
    RawClient wakeAcceptor(port());
    _acceptor.join();
    for (auto& thread : _threads) thread.join();
}

int ScriptedServer::port() const {
    return _socket.address().port();
}

std::string ScriptedServer::url(const std::string& target) const {
    return "http://127.0.0.1:" + std::to_string(port()) + target;
}

std::vector<std::string> ScriptedServer::awaitRequests(std::size_t count) {
    std::unique_lock<std::mutex> lock(_mutex);
    if (!_changed.wait_for(lock, std::chrono::seconds(20),
                           [&] { return _requests.size() >= count; })) {
        throw std::runtime_error("requests did not come");
    }
    return _requests;
}

void ScriptedServer::accept() {
    for (;;) {
        StreamSocket connection = _socket.acceptConnection();
        const std::lock_guard<std::mutex> lock(_mutex);
        if (_stopped) return;
        _connections.push_back(connection);
        _threads.emplace_back([this, connection] { serve(connection); });
    }
}

void ScriptedServer::serve(StreamSocket connection) {
    std::string request;
    try {
        connection.setReceiveTimeout(kPatience);
        if (readMessage(connection, request) != 0) {
            {
                const std::lock_guard<std::mutex> lock(_mutex);
                _requests.push_back(request);
                _changed.notify_all();
            }
            _script(connection);
        }
        connection.shutdown();
    } catch (const Poco::Exception&) {
        // The peer went first, as some tests want it to.
    }
}

void staySilent(StreamSocket& connection) {
    std::string ignored;
    while (receive(connection, ignored)) {
    }
}
