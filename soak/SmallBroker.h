#pragma once

#include <Poco/Exception.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>

#include <atomic>
#include <string>
#include <thread>

namespace soak {

/// How a broker behaves.
struct Manner {
    const char* name;
    bool accepts = true;
    int acknowledgements = 1;   // of each message
    std::string greeting = "";  // sent once it has accepted
    bool stays = true;          // else it closes after its first answer
};

inline const Manner kGoodManner{"well"};

/// A broker that has good manners until told otherwise. One client at a time.
class SmallBroker {
public:
    SmallBroker() : _thread([this](const std::stop_token& stop) { serve(stop); }) {}

    std::string address() const { return "tcp://" + _server.address().toString(); }

    /// From the next session on.
    /// @param manner  kept by the caller.
    void behave(const Manner& manner) { _manner = &manner; }

    /// Ends the present session without a word.
    void drop() { _dropped = true; }

    int sessions() const { return _sessions; }
    long messages() const { return _messages; }

private:
    void serve(const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            if (!_server.poll({0, 20000}, Poco::Net::Socket::SELECT_READ)) continue;
            Poco::Net::StreamSocket peer = _server.acceptConnection();
            peer.setNoDelay(true);
            ++_sessions;
            _dropped = false;
            try {
                converse(stop, peer, *_manner);
            } catch (const Poco::Exception&) {
                // The client has gone.
            }
        }
    }

    void converse(const std::stop_token& stop, Poco::Net::StreamSocket& peer,
                  const Manner& manner) {
        while (!stop.stop_requested() && !_dropped) {
            if (!peer.poll({0, 5000}, Poco::Net::Socket::SELECT_READ)) continue;
            const int head = static_cast<unsigned char>(read(peer, 1)[0]);
            const std::string reply = replyTo(head, read(peer, readLength(peer)), manner);
            peer.sendBytes(reply.data(), static_cast<int>(reply.size()));
            if (!manner.stays) return;
        }
    }

    std::string replyTo(int head, const std::string& body, const Manner& manner) {
        constexpr int kConnect = 1, kPublish = 3, kRelease = 6, kSubscribe = 8, kUnsubscribe = 10,
                      kPing = 12;
        if (!manner.accepts) return "";
        const std::string id = body.substr(0, 2);
        switch (head / 16) {
            case kConnect:
                return std::string("\x20\x02\x00\x00", 4) + manner.greeting;
            case kPing:
                return {"\xd0\x00", 2};
            case kUnsubscribe:
                return "\xb0\x02" + id;
            case kSubscribe:
                return "\x90\x03" + id + '\0';
            case kRelease:
                return "\x70\x02" + id;
            case kPublish:
                break;
            default:
                return "";
        }
        ++_messages;
        const int qos = head / 2 % 4;
        const auto topic = 2 + static_cast<std::size_t>(static_cast<unsigned char>(body[1]));
        std::string reply;
        for (int i = 0; i < manner.acknowledgements && qos > 0; ++i)
            reply += (qos == 1 ? "\x40\x02" : "\x50\x02") + body.substr(topic, 2);
        return reply;
    }

    static std::string read(Poco::Net::StreamSocket& peer, std::size_t length) {
        std::string bytes(length, '\0');
        for (std::size_t have = 0; have < length;) {
            const int more = peer.receiveBytes(&bytes[have], static_cast<int>(length - have));
            if (more <= 0) throw Poco::IOException("closed");
            have += static_cast<std::size_t>(more);
        }
        return bytes;
    }

    static std::size_t readLength(Poco::Net::StreamSocket& peer) {
        std::size_t length = 0;
        for (unsigned shift = 0, more = 128; more != 0; shift += 7) {
            const auto byte = static_cast<unsigned char>(read(peer, 1)[0]);
            length |= static_cast<std::size_t>(byte & 127U) << shift;
            more = byte & 128U;
        }
        return length;
    }

    Poco::Net::ServerSocket _server{Poco::Net::SocketAddress("127.0.0.1", 0)};
    std::atomic<const Manner*> _manner{&kGoodManner};
    std::atomic<int> _sessions{0};
    std::atomic<long> _messages{0};
    std::atomic<bool> _dropped{false};
    std::jthread _thread;
};

}  // namespace soak
