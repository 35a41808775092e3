#include "ScriptedBroker.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <iterator>

namespace {

constexpr int kConnect = 1, kPublish = 3, kRelease = 6, kSubscribe = 8, kUnsubscribe = 10,
              kPing = 12;

char byteFrom(Poco::Net::StreamSocket& peer) {
    char byte = 0;
    if (peer.receiveBytes(&byte, 1) != 1) throw Poco::IOException("closed");
    return byte;
}

// How many filters a SUBSCRIBE holds: an id, then length, filter and QoS of each.
std::size_t filters(const std::string& body) {
    std::size_t count = 0;
    for (std::size_t at = 2; at + 2 < body.size(); ++count) {
        at += 3 + static_cast<unsigned char>(body[at]) * 256U +
              static_cast<unsigned char>(body[at + 1]);
    }
    return count;
}

}  // namespace

ScriptedBroker::ScriptedBroker(Manner manner)
    : _manner(manner), _thread([this](const std::stop_token& stop) { serve(stop); }) {}

ScriptedBroker::~ScriptedBroker() {
    _thread.request_stop();
}

void ScriptedBroker::serve(const std::stop_token& stop) {
    std::vector<Poco::Net::StreamSocket> mute;
    while (!stop.stop_requested()) {
        const Manner manner = _manner;
        if (manner != Manner::kMute) mute.clear();
        if (!_server.poll({0, 20000}, Poco::Net::Socket::SELECT_READ)) continue;
        const Poco::Net::StreamSocket peer = _server.acceptConnection();
        ++_session;
        if (manner == Manner::kMute) mute.push_back(peer);
        if (manner == Manner::kMute || manner == Manner::kClosesAtOnce) continue;
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _peer = peer;
            _peer.setNoDelay(true);
        }
        try {
            converse(stop, manner);
        } catch (const Poco::Exception&) {  // the client has gone, or drop() came
        }
    }
}

void ScriptedBroker::converse(const std::stop_token& stop, Manner manner) {
    Poco::Net::StreamSocket peer = _peer;  // this thread alone changes it
    while (!stop.stop_requested()) {
        if (!peer.poll({0, 20000}, Poco::Net::Socket::SELECT_READ)) continue;
        const int head = static_cast<unsigned char>(byteFrom(peer)), type = head >> 4;
        std::size_t length = 0;
        for (unsigned shift = 0, more = 128; more != 0; shift += 7) {
            const auto byte = static_cast<unsigned char>(byteFrom(peer));
            length |= static_cast<std::size_t>(byte & 127U) << shift;
            more = byte & 128U;
        }
        std::string body;
        while (body.size() < length) body += byteFrom(peer);
        if (type == kPublish) ++_messages;
        if (manner < Manner::kAcknowledges) {
            const std::lock_guard<std::mutex> lock(_mutex);
            _received.push_back({type, body, _session});
        }
        const bool newer = body.compare(0, 6, std::string("\0\4MQTT", 6)) == 0;
        if (type == kConnect && manner == Manner::kOld && newer) return peer.close();
        answer(manner, head, body);
        if (manner == Manner::kSendsHalfAPacket) return peer.close();
    }
}

void ScriptedBroker::answer(Manner manner, int head, const std::string& body) {
    const int type = head >> 4, qos = head / 2 % 4;
    const std::string id = body.substr(0, 2);
    if (type == kConnect) {
        send({"\x20\x02\x00\x00", 4});
        if (manner == Manner::kSendsGarbage) send("\x05\xff\xff\xff\xff\xff\xff garbage");
        if (manner == Manner::kSendsHalfAPacket) send("\x30\x7f half of a packet");
    }
    if (type == kPing) send({"\xd0\x00", 2});
    if (type == kUnsubscribe) send("\xb0\x02" + id);
    if (type == kSubscribe) {
        const std::string granted(filters(body), '\0');
        send('\x90' + std::string(1, static_cast<char>(granted.size() + 2)) + id + granted);
    }
    if (manner < Manner::kAcknowledges) return;
    if (type == kRelease) send("\x70\x02" + id);
    if (type != kPublish || qos == 0) return;
    const auto topic = 2U + static_cast<unsigned char>(body[1]);
    const std::string ack = (qos == 1 ? "\x40\x02" : "\x50\x02") + body.substr(topic, 2);
    send(manner == Manner::kAcknowledgesTwice ? ack + ack : ack);
}

void ScriptedBroker::send(const std::string& packet) const {
    const std::lock_guard<std::mutex> lock(_mutex);
    Poco::Net::StreamSocket peer = _peer;
    peer.sendBytes(packet.data(), static_cast<int>(packet.size()));
}

void ScriptedBroker::acknowledge(int token) const {
    send({'\x40', '\x02', static_cast<char>(token / 256), static_cast<char>(token % 256)});
}

void ScriptedBroker::drop() {
    const std::lock_guard<std::mutex> lock(_mutex);
    try {
        _peer.shutdown();
    } catch (const Poco::Exception&) {  // the client was faster
    }
}

std::vector<ScriptedBroker::Packet> ScriptedBroker::received(int type, int session) const {
    std::vector<Packet> found;
    const std::lock_guard<std::mutex> lock(_mutex);
    std::copy_if(_received.begin(), _received.end(), std::back_inserter(found),
                 [&](const Packet& p) { return p.type == type && p.session == session; });
    return found;
}
