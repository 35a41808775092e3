#pragma once

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// A broker that does what the test says: it takes connections one after the other, accepts each
/// CONNECT, answers SUBSCRIBE and PINGREQ, and acknowledges only on request.
class ScriptedBroker {
public:
    struct Packet {
        int type;  // as on the wire: 3 for PUBLISH, 8 for SUBSCRIBE
        std::string body;
        int session;
    };

    enum class Manner {
        kAccepts,
        kMute,
        kOld,  // knows MQTT 3.1 alone and closes the connection where it meets another version
        kAcknowledges,  // each message by itself, and keeps only their count; so do the following
        kAcknowledgesTwice,
        kSendsGarbage,      // once it has accepted
        kSendsHalfAPacket,  // and closes
        kClosesAtOnce,
    };

    explicit ScriptedBroker(Manner manner = Manner::kAccepts);
    ~ScriptedBroker();
    ScriptedBroker(const ScriptedBroker&) = delete;
    ScriptedBroker& operator=(const ScriptedBroker&) = delete;

    std::string address() const { return "tcp://" + _server.address().toString(); }

    /// From the next session on.
    void behave(Manner manner) { _manner = manner; }

    /// What came in the session that is the `session`th.
    std::vector<Packet> received(int type, int session = 1) const;
    std::size_t count(int type, int session = 1) const { return received(type, session).size(); }

    /// Connections, and messages that came in all of them, so far.
    int sessions() const { return _session; }
    long messages() const { return _messages; }

    void acknowledge(int token) const;
    void drop();

private:
    void serve(const std::stop_token& stop);
    void converse(const std::stop_token& stop, Manner manner);
    void answer(Manner manner, int head, const std::string& body);
    void send(const std::string& packet) const;

    std::atomic<Manner> _manner;
    Poco::Net::ServerSocket _server{Poco::Net::SocketAddress("127.0.0.1", 0)};
    std::atomic<int> _session{0};
    std::atomic<long> _messages{0};
    mutable std::mutex _mutex;
    Poco::Net::StreamSocket _peer;  // guarded by _mutex, as are the following
    std::vector<Packet> _received;
    std::jthread _thread;
};
