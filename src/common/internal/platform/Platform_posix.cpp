// Platform_posix.cpp - Linux, through POSIX calls and /proc.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>

#include "Platform.h"

namespace fs = std::filesystem;

namespace kel::platform {

namespace {

using Bytes = std::vector<unsigned char>;

[[noreturn]] void fail(const std::string& what, const std::string& path) {
    throw std::system_error(errno, std::generic_category(), what + " " + path);
}

void writeAll(int fd, const std::string& content, const std::string& path) {
    for (std::size_t done = 0; done < content.size();) {
        const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno != EINTR) fail("write", path);
        if (n > 0) done += static_cast<std::size_t>(n);
    }
}

// Follows a link, so that a linked configuration file stays a link.
std::string realTarget(const std::string& path) {
    std::error_code ignored;
    const fs::path real = fs::canonical(path, ignored);
    return real.empty() ? path : real.string();
}

// The kernel marks an executable that was replaced or removed, as an update does.
std::string withoutDeletedMark(std::string exe) {
    const std::string mark = " (deleted)";
    std::error_code unreadable;
    if (exe.ends_with(mark) && !fs::exists(exe, unreadable)) exe.resize(exe.size() - mark.size());
    return exe;
}

// Base name of the executable, or the kernel's short name where the link cannot be read (a kernel
// thread, another user's process).
std::string processName(const fs::path& entry) {
    std::error_code unreadable;
    const fs::path exe = fs::read_symlink(entry / "exe", unreadable);
    if (unreadable) {
        std::string shortName;
        std::ifstream in(entry / "comm");
        std::getline(in, shortName);
        return shortName;
    }
    return fs::path(withoutDeletedMark(exe.string())).filename().string();
}

bool isNumber(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Sends and receives ICMP, through a raw socket or else through the kind that the kernel lends to
// processes without the right to one. That kind sets identifier and checksum by itself, and its
// packets come without their IP header.
class IcmpSocket {
public:
    explicit IcmpSocket(int ttl) : _fd(open(SOCK_RAW)), _raw(_fd >= 0) {
        if (!_raw) _fd = open(SOCK_DGRAM);
        if (_fd < 0) fail("open", "an ICMP socket");
        ::setsockopt(_fd, IPPROTO_IP, IP_TTL, &ttl, sizeof ttl);
    }
    ~IcmpSocket() { ::close(_fd); }
    IcmpSocket(const IcmpSocket&) = delete;
    IcmpSocket& operator=(const IcmpSocket&) = delete;

    bool send(const Bytes& packet, const std::string& address) const {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        if (::inet_pton(AF_INET, address.c_str(), &to.sin_addr) != 1) {
            errno = EINVAL;
            return false;
        }
        return ::sendto(_fd, packet.data(), packet.size(), 0,
                        reinterpret_cast<const sockaddr*>(&to), sizeof to) >= 0;
    }

    // @return the next packet from its ICMP header on; empty if none came in time.
    Bytes receive(std::chrono::milliseconds timeout) const {
        pollfd socket{_fd, POLLIN, 0};
        if (::poll(&socket, 1, static_cast<int>(timeout.count())) <= 0) return {};
        Bytes packet(kLongestPacket);
        const ssize_t size = ::recv(_fd, packet.data(), packet.size(), MSG_DONTWAIT);
        packet.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        const std::size_t header = _raw && !packet.empty() ? 4u * (packet[0] & 0x0F) : 0;
        packet.erase(packet.begin(), packet.begin() + std::min(header, packet.size()));
        return packet;
    }

private:
    static constexpr std::size_t kLongestPacket = 2048;

    static int open(int type) { return ::socket(AF_INET, type | SOCK_CLOEXEC, IPPROTO_ICMP); }

    int _fd;
    const bool _raw;
};

std::uint16_t internetChecksum(const Bytes& packet) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < packet.size(); ++i) sum += packet[i] << (i % 2 == 0 ? 8 : 0);
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

// Its random identifier and content tell its answer from those to other pings.
Bytes echoPacket(std::size_t dataBytes) {
    Bytes packet(sizeof(icmphdr) + dataBytes);
    if (::getrandom(packet.data(), packet.size(), 0) < 0) fail("get", "random bytes");
    icmphdr header{};
    std::memcpy(&header.un.echo.id, packet.data(), sizeof header.un.echo.id);
    header.type = ICMP_ECHO;
    std::memcpy(packet.data(), &header, sizeof header);
    header.checksum = htons(internetChecksum(packet));
    std::memcpy(packet.data(), &header, sizeof header);
    return packet;
}

bool isAnswerTo(const Bytes& request, const Bytes& packet) {
    return packet.size() == request.size() && packet[0] == ICMP_ECHOREPLY &&
           std::equal(packet.begin() + sizeof(icmphdr), packet.end(),
                      request.begin() + sizeof(icmphdr));
}

// 0 where `descriptor` is no connection of the internet's families.
std::uint16_t peerPort(int descriptor) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return 0;
    if (peer.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in&>(peer).sin_port);
    if (peer.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6&>(peer).sin6_port);
    return 0;
}

}  // namespace

std::string executablePath() {
    std::error_code failed;
    const fs::path exe = fs::read_symlink("/proc/self/exe", failed);
    if (failed) throw std::system_error(failed, "read /proc/self/exe");
    return withoutDeletedMark(exe.string());
}

void createPrivateDirectory(const std::string& path) {
    if (::mkdir(path.c_str(), S_IRWXU) != 0 && errno != EEXIST) fail("create directory", path);
}

void replaceFileContent(const std::string& path, const std::string& content) {
    const std::string target = realTarget(path);
    std::string neighbour = target + ".XXXXXX";
    const int fd = ::mkstemp(neighbour.data());  // readable by the owner only
    if (fd < 0) fail("create", neighbour);
    try {
        std::unique_ptr<const int, void (*)(const int*)> closer(&fd,
                                                                [](const int* f) { ::close(*f); });
        writeAll(fd, content, neighbour);
        if (::fsync(fd) != 0) fail("write", neighbour);
        if (::rename(neighbour.c_str(), target.c_str()) != 0) fail("replace", target);
    } catch (...) {
        ::unlink(neighbour.c_str());
        throw;
    }
}

void enableConsoleColors() noexcept {}

void writeToConsole(const std::string& text) noexcept {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t n = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
        if (n > 0) done += static_cast<std::size_t>(n);
        if (n < 0 && errno == EAGAIN) {  // whoever shares it has made it non-blocking
            pollfd console{STDERR_FILENO, POLLOUT, 0};
            ::poll(&console, 1, -1);
        } else if (n < 0 && errno != EINTR) {
            return;
        }
    }
}

std::vector<unsigned long> processesByName(const std::string& name) {
    std::vector<unsigned long> pids;
    std::error_code failed;  // ends the loop; what was found by then counts
    for (fs::directory_iterator entry("/proc", failed), end; entry != end;
         entry.increment(failed)) {
        const std::string id = entry->path().filename().string();
        if (isNumber(id) && processName(entry->path()) == name) pids.push_back(std::stoul(id));
    }
    std::sort(pids.begin(), pids.end());
    return pids;
}

unsigned long currentProcessId() noexcept {
    return static_cast<unsigned long>(::getpid());
}

std::string killCommand(unsigned int pid) {
    return "kill -KILL " + std::to_string(pid);
}

const std::vector<std::string>& pluginSuffixes() {
    static const std::vector<std::string> suffixes{".dll", ".so"};
    return suffixes;
}

bool answersEcho(const std::vector<std::string>& addresses, const EchoRequest& request) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + request.timeout;
    const IcmpSocket socket(request.ttl);
    const Bytes packet = echoPacket(request.dataBytes);
    bool sent = false;
    for (const std::string& address : addresses) sent |= socket.send(packet, address);
    if (!sent) fail("send an echo request to", addresses.empty() ? "nobody" : addresses.back());
    for (auto now = Clock::now(); now < deadline; now = Clock::now()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
        if (isAnswerTo(packet, socket.receive(left))) return true;
    }
    return false;
}

void sendAtOnceTo(std::uint16_t port) {
    std::error_code unreadable;
    for (fs::directory_iterator entry("/dev/fd", unreadable), end; !unreadable && entry != end;
         entry.increment(unreadable)) {
        const int descriptor = std::atoi(entry->path().filename().c_str());
        if (peerPort(descriptor) != port) continue;
        const int on = 1;
        ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
}

bool canJoinAtExit() noexcept {
    return true;
}

}  // namespace kel::platform
