#include "SmallBroker.h"

#include <Poco/Exception.h>

#include <algorithm>

namespace soak {

namespace {

constexpr int kConnect = 1, kPublish = 3, kRelease = 6, kSubscribe = 8, kUnsubscribe = 10,
              kPing = 12;

std::string read(Poco::Net::StreamSocket& peer, std::size_t length) {
    std::string bytes(length, '\0');
    for (std::size_t have = 0; have < length;) {
        const int more = peer.receiveBytes(&bytes[have], static_cast<int>(length - have));
        if (more <= 0) throw Poco::IOException("closed");
        have += static_cast<std::size_t>(more);
    }
    return bytes;
}

std::size_t readLength(Poco::Net::StreamSocket& peer) {
    std::size_t length = 0;
    for (unsigned shift = 0, more = 128; more != 0; shift += 7) {
        const auto byte = static_cast<unsigned char>(read(peer, 1)[0]);
        length |= static_cast<std::size_t>(byte & 127U) << shift;
        more = byte & 128U;
    }
    return length;
}

}  // namespace

void SmallBroker::drop() {
    _dropped = true;
}

std::set<std::string> SmallBroker::messages() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _messages;
}

void SmallBroker::serve(const std::stop_token& stop) {
    while (!stop.stop_requested()) {
        if (!_server.poll({0, 20000}, Poco::Net::Socket::SELECT_READ)) continue;
        Poco::Net::StreamSocket peer = _server.acceptConnection();
        peer.setNoDelay(true);
        ++_sessions;
        _dropped = false;
        try {
            if (_manner != Manner::kClosesAtOnce) converse(stop, peer);
        } catch (const Poco::Exception&) {
            // The client has gone.
        }
    }
}

void SmallBroker::converse(const std::stop_token& stop, Poco::Net::StreamSocket peer) {
    const Manner manner = _manner;
    while (!stop.stop_requested() && !_dropped) {
        if (!peer.poll({0, 5000}, Poco::Net::Socket::SELECT_READ)) continue;
        const int head = static_cast<unsigned char>(read(peer, 1)[0]);
        const std::string body = read(peer, readLength(peer));
        if (manner == Manner::kMute) continue;
        answer(peer, head, body);
    }
}

void SmallBroker::answer(Poco::Net::StreamSocket& peer, int head, const std::string& body) {
    const int type = head / 16, qos = head / 2 % 4;
    const Manner manner = _manner;
    if (type == kConnect) {
        send(peer, {"\x20\x02\x00\x00", 4});
        if (manner == Manner::kGarbage) send(peer, "\x05\xff\xff\xff\xff\xff\xff garbage");
        if (manner == Manner::kHalfPacket) send(peer, "\x30\x7f half of a packet"), drop();
    }
    if (type == kPing) send(peer, {"\xd0\x00", 2});
    if (type == kUnsubscribe) send(peer, "\xb0\x02" + body.substr(0, 2));
    if (type == kSubscribe) send(peer, "\x90\x03" + body.substr(0, 2) + '\0');
    if (type == kRelease) send(peer, "\x70\x02" + body.substr(0, 2));
    if (type != kPublish) return;
    ++_count;
    const auto topic = 2 + static_cast<std::size_t>(static_cast<unsigned char>(body[1]));
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _messages.insert(body.substr(topic + (qos > 0 ? 2 : 0)));
    }
    if (qos == 0 || manner == Manner::kNeverAcks) return;
    const std::string ack = (qos == 1 ? "\x40\x02" : "\x50\x02") + body.substr(topic, 2);
    send(peer, manner == Manner::kAcksTwice ? ack + ack : ack);
}

void SmallBroker::send(Poco::Net::StreamSocket& peer, const std::string& packet) {
    peer.sendBytes(packet.data(), static_cast<int>(packet.size()));
}

}  // namespace soak
