#include "BrokerHost.h"

#include <Poco/Net/NetException.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/SocketImpl.h>
#include <Poco/Net/StreamSocket.h>

#include <algorithm>

#include "../net/ServerUri.h"

namespace kel {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Poco::Net::Socket;

constexpr auto kPatience = 2000ms;
// A port that answers does so within a round trip.
constexpr auto kPatienceBeforePing = 250ms;

bool contains(const Socket::SocketList& sockets, const Socket& socket) {
    return std::find(sockets.begin(), sockets.end(), socket) != sockets.end();
}

// TCP connects to all addresses of a broker side by side. They are given up with the object.
class PortProbe {
public:
    explicit PortProbe(const std::string& serverUri) {
        try {
            const std::uint16_t port = portOfServerUri(serverUri);
            for (const auto& address : addressesOfHost(hostOfServerUri(serverUri))) {
                begin(Poco::Net::SocketAddress(address, port));
            }
        } catch (const Poco::Exception&) {
            // A name that does not resolve has no port that could answer.
        }
    }

    bool answersUntil(Clock::time_point deadline) {
        while (!_accepted && _refused == 0 && awaitOne(deadline)) continue;
        return _accepted || _refused != 0;
    }

    bool refusesUntil(Clock::time_point deadline) {
        while (!_accepted && awaitOne(deadline)) continue;
        return _refused != 0 && _refused == _begun;
    }

private:
    void begin(const Poco::Net::SocketAddress& address) {
        ++_begun;
        try {
            Poco::Net::StreamSocket socket;
            socket.connectNB(address);
            _pending.push_back(socket);
        } catch (const Poco::Net::ConnectionRefusedException&) {
            ++_refused;
        } catch (const Poco::Exception&) {
            // There is no route to this address, or no such family on this system.
        }
    }

    // Waits until an attempt has ended one way or the other.
    // @return false if none is under way, or has ended in time.
    bool awaitOne(Clock::time_point deadline) {
        if (_pending.empty()) return false;
        const auto left = std::max(deadline - Clock::now(), Clock::duration::zero());
        const auto microseconds = std::chrono::ceil<std::chrono::microseconds>(left).count();
        Socket::SocketList readable, connected = _pending, failed = _pending;
        try {
            if (Socket::select(readable, connected, failed, microseconds) == 0) return false;
        } catch (const Poco::Exception&) {
            return false;  // POCO takes a descriptor for it, and there is none
        }
        std::erase_if(_pending, [&](const Socket& socket) {
            const bool ended = contains(connected, socket) || contains(failed, socket);
            if (ended) count(socket.impl()->socketError());
            return ended;
        });
        return true;
    }

    void count(int error) {
        if (error == 0) _accepted = true;
        if (error == POCO_ECONNREFUSED) ++_refused;
    }

    Socket::SocketList _pending;
    std::size_t _begun = 0;
    std::size_t _refused = 0;
    bool _accepted = false;
};

}  // namespace

bool brokerHostAnswers(const std::string& serverUri, const PingHost& ping) {
    const auto begin = Clock::now();
    PortProbe port(serverUri);
    return port.answersUntil(begin + kPatienceBeforePing) || ping(serverUri) ||
           port.answersUntil(begin + kPatience);
}

bool brokerPortRefuses(const std::string& serverUri, std::chrono::milliseconds patience) {
    return PortProbe(serverUri).refusesUntil(Clock::now() + patience);
}

}  // namespace kel
