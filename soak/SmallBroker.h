#pragma once

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace soak {

/// A broker that acknowledges what it gets, until it is told to misbehave. One client at a time.
class SmallBroker {
public:
    enum class Manner {
        kWell,
        kClosesAtOnce,
        kGarbage,
        kHalfPacket,
        kMute,
        kNeverAcks,
        kAcksTwice
    };

    SmallBroker() : _thread([this](const std::stop_token& stop) { serve(stop); }) {}

    std::string address() const { return "tcp://" + _server.address().toString(); }
    void behave(Manner manner) { _manner = manner; }

    /// Ends the present session without a word.
    void drop();

    int sessions() const { return _sessions; }

    /// Bodies of PUBLISH packets, each once, and how many there were.
    std::set<std::string> messages() const;
    long count() const { return _count; }

private:
    void serve(const std::stop_token& stop);
    void converse(const std::stop_token& stop, Poco::Net::StreamSocket peer);
    void answer(Poco::Net::StreamSocket& peer, int head, const std::string& body);
    void send(Poco::Net::StreamSocket& peer, const std::string& packet);

    Poco::Net::ServerSocket _server{Poco::Net::SocketAddress("127.0.0.1", 0)};
    std::atomic<Manner> _manner{Manner::kWell};
    std::atomic<int> _sessions{0};
    std::atomic<long> _count{0};
    std::atomic<bool> _dropped{false};
    mutable std::mutex _mutex;
    std::set<std::string> _messages;  // guarded by _mutex
    std::jthread _thread;
};

}  // namespace soak
