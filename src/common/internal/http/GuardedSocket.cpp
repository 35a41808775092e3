// GuardedSocket.cpp - what stands between a client and POCO's lenient parser.
//
// A head is received whole and checked before POCO sees its first byte; of the body POCO gets
// exactly what belongs to it, and then the end of the stream until the next head has been checked.
// So nothing that is left of one request can be taken for another.
//
// Waiting for the peer is done in slices of the socket's receive time-out, between which the limits
// and the server's stop are looked at: nobody has to wake this thread, which Windows could not do
// for a blocked receive. What blocks without slices (sending; TLS inside of a record) is cut off by
// the server's own thread, which shuts the socket down.
//
// A thread that sleeps is awake again only 20 to 30 us after its client has asked, which is more
// than a small request takes. A client that asks again as soon as it has its reply is therefore
// looked out for, for a moment, before this thread sleeps. If it does not ask, the thread looks out
// again a second later at the earliest.

#include "GuardedSocket.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/NetException.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "../../HttpLimits.h"

namespace kel {

namespace {

using Poco::Net::HTTPResponse;
using std::chrono::milliseconds;

const Poco::Timespan kSlice(0, 250'000);
constexpr std::chrono::microseconds kAtOnce(100);
constexpr std::chrono::microseconds kLookOut(50);
constexpr std::chrono::seconds kLookOutPause(1);
constexpr int kBlock = 16 * 1024;
constexpr int kSendBlock = 64 * 1024;
constexpr std::size_t kMaxLingerBytes = 1 << 20;

[[noreturn]] void refuse(const char* why, int status) {
    throw Poco::Net::MessageException(why, status);
}

}  // namespace

GuardedSocket::GuardedSocket(const Poco::Net::StreamSocket& accepted,
                             std::shared_ptr<ServerState> state)
    : _inner(accepted), _state(std::move(state)) {
    inner().setReceiveTimeout(kSlice);
    inner().setSendTimeout(Poco::Timespan(_state->times.grace.count() * 1000));
    prepare();
    // Last, since the base would close it if anything above threw.
    reset(inner().sockfd());
}

// POCO asks for both addresses with each request. Without the option, the second part of a reply
// would wait for the client's delayed acknowledgement of the first.
void GuardedSocket::prepare() {
    try {
        _address = inner().address();
        _peerAddress = inner().peerAddress();
        inner().setNoDelay(true);
    } catch (const Poco::Exception&) {
        // Not TCP, or the client has gone, which reading will show.
    }
}

// The descriptor is the accepted socket's to close.
GuardedSocket::~GuardedSocket() {
    reset();
}

bool GuardedSocket::awaitHead(milliseconds idle) {
    const bool again = _headEnd != 0;
    forgetRequest();
    const Patience patience{Clock::now(), idle, _state->times.crowdedIdle};
    if (_buffer.empty() && _asksAtOnce) lookOut(patience.since);
    // Line ends between requests are skipped, as HTTP asks for.
    while (_buffer.empty()) {
        if (!fillBuffer(patience)) return false;
        const auto first = _buffer.find_first_not_of("\r\n");
        _buffer.erase(0, first);
    }
    _asksAtOnce = again && Clock::now() - patience.since < kAtOnce;
    readHead();
    return true;
}

// In vain where the client takes longer, or where others want the processor and get it by the
// yield: then sleeping is the better way for a while.
void GuardedSocket::lookOut(Clock::time_point since) {
    auto now = since;
    if (now < _lookOutFrom) return;
    while (StreamSocketImpl::available() == 0 && now - since < kLookOut) {
        std::this_thread::yield();
        now = Clock::now();
    }
    if (now - since >= kLookOut) _lookOutFrom = now + kLookOutPause;
}

void GuardedSocket::forgetRequest() {
    _buffer.erase(0, _begin);
    _buffer.erase(0, _buffer.find_first_not_of("\r\n"));
    _begin = _headEnd = 0;
    _framing = BodyFraming();
    _bodyReceived = _sent = 0;
    _bodyWaited = _sendWaited = Clock::duration::zero();
    _refusedBody = 0;
}

void GuardedSocket::readHead() {
    if (!beginsRequest(_buffer.front())) refuse("no HTTP", HTTPResponse::HTTP_BAD_REQUEST);
    const Patience patience{Clock::now(), _state->times.head, _state->times.crowdedHead};
    for (std::size_t searched = 0; !findHeadEnd(searched);) {
        if (!fillBuffer(patience)) {
            const bool late = over(patience);
            refuse("incomplete request head",
                   late ? HTTPResponse::HTTP_REQUEST_TIMEOUT : HTTPResponse::HTTP_BAD_REQUEST);
        }
    }
    const std::string_view head(_buffer.data(), _headEnd);
    _framing = BodyFraming(checkRequestHead(head));
}

// Looks at each line end once. One without a carriage return would be none to other readers.
bool GuardedSocket::findHeadEnd(std::size_t& searched) {
    for (auto at = _buffer.find('\n', searched); at != std::string::npos;
         at = _buffer.find('\n', searched)) {
        const std::string_view line(_buffer.data(), at + 1);
        if (!line.ends_with("\r\n")) refuse("bare line feed", HTTPResponse::HTTP_BAD_REQUEST);
        searched = at + 1;
        if (line.ends_with("\r\n\r\n")) {
            _headEnd = searched;
            break;
        }
    }
    const std::size_t size = _headEnd != 0 ? _headEnd : _buffer.size();
    if (size > HttpLimits::kHeadSize) {
        refuse("request head too long", HTTPResponse::HTTP_REQUEST_HEADER_FIELDS_TOO_LARGE);
    }
    if (_headEnd == 0) searched = _buffer.size();
    return _headEnd != 0;
}

// @return false at the end of the connection and when the patience is over.
bool GuardedSocket::fillBuffer(const Patience& patience) {
    const std::size_t before = _buffer.size();
    _buffer.resize(before + kBlock);
    int received = 0;
    try {
        received = receiveBlock(_buffer.data() + before, kBlock, patience);
    } catch (const Poco::TimeoutException&) {
        received = 0;
    }
    _buffer.resize(before + static_cast<std::size_t>(std::max(received, 0)));
    return received > 0;
}

int GuardedSocket::receiveBytes(void* buffer, int length, int flags) {
    const auto wanted = static_cast<std::size_t>(length);
    if (_passThrough) {
        if (_begin < _buffer.size()) return handOut(buffer, wanted, _buffer.size());
        return _inner.receiveBytes(buffer, length, flags);
    }
    if (_begin < _headEnd) return handOut(buffer, wanted, _headEnd);
    if (_framing.complete()) return 0;
    try {
        return receiveBody(static_cast<char*>(buffer), length);
    } catch (const Poco::Net::MessageException& refused) {
        _refusedBody = refused.code();
        throw;
    }
}

int GuardedSocket::handOut(void* buffer, std::size_t length, std::size_t end) {
    const std::size_t count = std::min(length, end - _begin);
    std::memcpy(buffer, _buffer.data() + _begin, count);
    _begin += count;
    return static_cast<int>(count);
}

int GuardedSocket::receiveBody(char* buffer, int length) {
    const std::size_t room = std::min(_framing.wanted(), static_cast<std::size_t>(length));
    if (_begin < _buffer.size()) {
        const std::string_view received(_buffer.data() + _begin, _buffer.size() - _begin);
        return handOut(buffer, room, _begin + _framing.take(received.substr(0, room)));
    }
    const auto received = static_cast<std::size_t>(awaitBody(buffer, static_cast<int>(room)));
    const std::size_t taken = _framing.take({buffer, received});
    _buffer.append(buffer + taken, received - taken);  // the next request's
    return static_cast<int>(taken);
}

int GuardedSocket::awaitBody(char* buffer, int length) {
    const auto begun = Clock::now();
    const auto left = slowestTime(_bodyReceived) - _bodyWaited;
    const auto patience = std::chrono::duration_cast<milliseconds>(left);
    int received = 0;
    try {
        received = receiveBlock(buffer, length, {begun, patience, patience});
    } catch (const Poco::TimeoutException&) {
        refuse("request body too slow", HTTPResponse::HTTP_REQUEST_TIMEOUT);
    }
    if (received <= 0) refuse("incomplete request body", HTTPResponse::HTTP_BAD_REQUEST);
    _bodyReceived += received;
    _bodyWaited += Clock::now() - begun;
    return received;
}

// @return 0 at the end of the connection, which the server's stop may have brought about.
int GuardedSocket::receiveBlock(char* buffer, int length, const Patience& patience) {
    while (_answering || !_state->stopping) {
        if (over(patience)) throw Poco::TimeoutException();
        if (_inner.secure())
            _cutOff = (patience.since + patience.normally).time_since_epoch().count();
        int received = -1;  // TLS: a slice has passed
        try {
            received = _inner.receiveBytes(buffer, length);
        } catch (const Poco::TimeoutException&) {
            received = -1;
        }
        _cutOff = 0;
        if (received >= 0) return received;
    }
    return 0;
}

// The time for `bytes` at the slowest rate that is allowed.
GuardedSocket::Clock::duration GuardedSocket::slowestTime(std::int64_t bytes) const noexcept {
    return _state->times.grace + milliseconds(bytes * 1000 / HttpLimits::kMinimumRate);
}

bool GuardedSocket::over(const Patience& patience) const noexcept {
    const bool crowded = _state->crowded;
    const auto limit =
        crowded ? std::min(patience.normally, patience.whenCrowded) : patience.normally;
    return Clock::now() - patience.since >= limit;
}

int GuardedSocket::sendBytes(const void* buffer, int length, int flags) {
    if (_passThrough) return _inner.sendBytes(buffer, length, flags);
    const char* bytes = static_cast<const char*>(buffer);
    try {
        for (int sent = 0; sent < length; sent += kSendBlock) {
            sendBlock(bytes + sent, std::min(kSendBlock, length - sent));
        }
    } catch (...) {
        _cutOff = 0;
        _sendingFailed = true;
        throw;
    }
    return length;
}

void GuardedSocket::sendBlock(const char* bytes, int length) {
    const auto begun = Clock::now();
    _sent += length;
    const auto end = begun + slowestTime(_sent) - _sendWaited;
    _cutOff = end.time_since_epoch().count();
    _inner.sendBytes(bytes, length);
    _cutOff = 0;
    _sendWaited += Clock::now() - begun;
}

void GuardedSocket::passThrough() {
    _passThrough = true;
    inner().setReceiveTimeout(_receiveTimeout);
}

void GuardedSocket::linger() noexcept {
    if (secure()) return;  // closing says so
    try {
        inner().shutdownSend();
        char block[4096];
        const auto until = Clock::now() + milliseconds(500);
        for (std::size_t taken = 0; taken < kMaxLingerBytes && Clock::now() < until;) {
            const int received = _state->crowded ? 0 : _inner.receiveBytes(block, 4096);
            if (received <= 0) return;
            taken += static_cast<std::size_t>(received);
        }
    } catch (const Poco::Exception&) {
        // The peer has closed the connection, or sends nothing more.
    }
}

void GuardedSocket::closeIfOverdue(Clock::time_point now) noexcept {
    const Clock::rep cutOff = _cutOff;
    if (cutOff != 0 && now.time_since_epoch().count() > cutOff) abort();
}

void GuardedSocket::closeIfIdle() noexcept {
    if (!_answering) abort();
}

void GuardedSocket::abort() noexcept {
    try {
        const std::lock_guard<std::mutex> lock(_closing);
        StreamSocketImpl::shutdown();  // past TLS, which would have to send for it
    } catch (const Poco::Exception&) {
        // The peer was faster.
    }
}

void GuardedSocket::close() {
    const std::lock_guard<std::mutex> lock(_closing);
    reset();
    inner().close();
}

GuardedSocket::ShutdownResult GuardedSocket::shutdown() {
    return inner().shutdown();
}

GuardedSocket::ShutdownSendResult GuardedSocket::shutdownSend() {
    return inner().shutdownSend();
}

int GuardedSocket::available() {
    return static_cast<int>(_buffer.size() - _begin) + inner().available();
}

bool GuardedSocket::poll(const Poco::Timespan& timeout, int mode) {
    const bool buffered = (mode & SELECT_READ) != 0 && _begin < _buffer.size();
    return buffered || inner().poll(timeout, mode);
}

// The slices are this class's own as long as the connection speaks HTTP.
void GuardedSocket::setReceiveTimeout(const Poco::Timespan& timeout) {
    _receiveTimeout = timeout;
    if (_passThrough) inner().setReceiveTimeout(timeout);
}

Poco::Timespan GuardedSocket::getReceiveTimeout() {
    return _receiveTimeout;
}

Poco::Net::SocketAddress GuardedSocket::address() {
    return _address;
}

Poco::Net::SocketAddress GuardedSocket::peerAddress() {
    return _peerAddress ? *_peerAddress : inner().peerAddress();
}

void GuardedSocket::setBlocking(bool flag) {
    inner().setBlocking(flag);
}

bool GuardedSocket::getBlocking() const {
    return inner().getBlocking();
}

bool GuardedSocket::secure() const {
    return inner().secure();
}

}  // namespace kel
