// Platform_posix.cpp - Linux, through POSIX calls and /proc.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <new>
#include <system_error>
#include <thread>

#include "Platform.h"

namespace fs = std::filesystem;

namespace kel::platform {

namespace {

using Bytes = std::vector<unsigned char>;

[[noreturn]] void fail(const std::string& what, const std::string& path) {
    throw std::system_error(errno, std::generic_category(), what + " " + path);
}

// An open file or folder; unlocked and closed by the destructor. Closing alone would leave the lock
// to a child that another thread has forked meanwhile.
class Descriptor {
public:
    Descriptor(const std::string& path, int flags, const char* what)
        : _fd(::open(path.c_str(), flags | O_CLOEXEC, S_IRUSR | S_IWUSR)) {
        if (_fd < 0) fail(what, path);
    }
    ~Descriptor() {
        ::flock(_fd, LOCK_UN);
        ::close(_fd);
    }

    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return _fd; }

private:
    const int _fd;
};

void writeAll(const Descriptor& file, const std::string& content, const std::string& path) {
    for (std::size_t done = 0; done < content.size();) {
        const ssize_t n = ::write(file.get(), content.data() + done, content.size() - done);
        if (n < 0 && errno != EINTR) fail("write", path);
        if (n > 0) done += static_cast<std::size_t>(n);
    }
}

std::string readAll(const Descriptor& file, const std::string& path) {
    std::string content;
    char block[4096];
    for (;;) {
        const ssize_t n = ::read(file.get(), block, sizeof(block));
        if (n == 0) return content;
        if (n < 0 && errno != EINTR) fail("read", path);
        if (n > 0) content.append(block, static_cast<std::size_t>(n));
    }
}

// Follows a link, so that a linked configuration file stays a link, also one whose file is still to
// be written.
std::string realTarget(const std::string& path) {
    std::error_code ignored;
    const fs::path real = fs::canonical(path, ignored);
    if (!real.empty()) return real.string();
    const fs::path missing = fs::read_symlink(path, ignored);
    return missing.empty() ? path : (fs::path(path).parent_path() / missing).string();
}

using FileStatus = struct stat;

std::optional<FileStatus> statusOf(const std::string& path) {
    FileStatus status{};
    if (::stat(path.c_str(), &status) == 0) return status;
    if (errno != ENOENT) fail("look at", path);
    return {};
}

// The rights of its folder would allow to replace it all the same, and root may write anything.
void refuseReadOnly(const std::string& path, const FileStatus& file) {
    if (!S_ISREG(file.st_mode)) {
        errno = S_ISDIR(file.st_mode) ? EISDIR : EINVAL;
        fail("write other than a regular file", path);
    }
    const bool nobodyMayWrite = (file.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0;
    if (nobodyMayWrite) errno = EACCES;
    if (nobodyMayWrite || ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0) {
        fail("write read-only file", path);
    }
}

// Held as long as `file` lives. Not every file system has such locks; without, it is for the hosts
// not to save at the same time.
void lock(const Descriptor& file, const std::string& path) {
    constexpr int kAttempts = 200;
    for (int attempt = 1; ::flock(file.get(), LOCK_EX | LOCK_NB) != 0; ++attempt) {
        if (errno != EWOULDBLOCK) return;
        if (attempt == kAttempts) fail("lock", path);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void giveOwnerAndMode(const Descriptor& file, const FileStatus& former, const std::string& path) {
    constexpr mode_t kMode = 07777;
    if (::fchown(file.get(), former.st_uid, former.st_gid) != 0 ||
        ::fchmod(file.get(), former.st_mode & kMode) != 0) {
        fail("keep owner and mode of", path);
    }
}

void replaceByNeighbour(const std::string& target, const std::optional<FileStatus>& former,
                        const std::string& content) {
    const std::string folderPath = fs::path(target).parent_path().string();
    const Descriptor folder(folderPath, O_RDONLY | O_DIRECTORY, "open folder");
    lock(folder, folderPath);
    const std::string neighbour = target + ".tmp";
    // What a killed process has left behind. It may also be a link that somebody has put there:
    // hence O_EXCL, which follows none.
    ::unlink(neighbour.c_str());
    try {
        const Descriptor file(neighbour, O_WRONLY | O_CREAT | O_EXCL, "create");
        writeAll(file, content, neighbour);
        if (former) giveOwnerAndMode(file, *former, target);
        if (::fsync(file.get()) != 0) fail("write", neighbour);
        if (::rename(neighbour.c_str(), target.c_str()) != 0) fail("replace", target);
    } catch (...) {
        ::unlink(neighbour.c_str());
        throw;
    }
    ::fsync(folder.get());  // the new file is in place, whether that is known to last or not
}

// The folder or the owner is not ours, or the file is a mount point.
bool forbidsReplacing(const std::error_code& code) {
    for (const int reason : {EBUSY, EACCES, EPERM, EROFS}) {
        if (code.value() == reason) return true;
    }
    return false;
}

void overwrite(const Descriptor& file, const std::string& content, const std::string& path) {
    if (::lseek(file.get(), 0, SEEK_SET) != 0) fail("write", path);
    writeAll(file, content, path);
    if (::ftruncate(file.get(), static_cast<off_t>(content.size())) != 0) fail("cut", path);
    if (::fsync(file.get()) != 0) fail("write", path);
}

// Makes room first, so that a full disk is noticed before the first byte is written; what fails
// later puts the former content back.
void overwriteInPlace(const std::string& target, const std::string& content) {
    const Descriptor file(target, O_RDWR | O_NOFOLLOW, "open");
    lock(file, target);
    const std::string former = readAll(file, target);
    if (::fallocate(file.get(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(content.size())) != 0 &&
        errno != EOPNOTSUPP) {
        fail("make room for", target);
    }
    try {
        overwrite(file, content, target);
    } catch (...) {
        try {
            overwrite(file, former, target);
        } catch (const std::system_error&) {
            // The first failure is the one to report.
        }
        throw;
    }
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

// A file may stand in the place of the directory, or of a parent: that has one text.
void requireDirectory(const std::string& path, std::error_code failed) {
    const bool exists = !failed || failed == std::errc::file_exists;
    if (exists && !fs::is_directory(path, failed)) {
        failed = std::make_error_code(std::errc::not_a_directory);
    }
    if (failed) throw std::system_error(failed, "create directory " + path);
}

bool isNumber(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A semaphore is among the few things that a signal handler may touch. Initialised before the
// handler is installed.
sem_t terminationRequests;

void onTerminationSignal(int) {
    const int error = errno;
    ::sem_post(&terminationRequests);
    errno = error;
}

void check(int result, const char* call) {
    if (result != 0) throw std::system_error(errno, std::generic_category(), call);
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
        const auto body =
            packet.begin() + static_cast<std::ptrdiff_t>(std::min(header, packet.size()));
        packet.erase(packet.begin(), body);
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

// A number that no other socket ever has.
std::uint64_t identityOf(int descriptor) {
    std::uint64_t cookie = 0;
    socklen_t length = sizeof cookie;
    const int rc = ::getsockopt(descriptor, SOL_SOCKET, SO_COOKIE, &cookie, &length);
    return rc == 0 ? cookie : 0;
}

}  // namespace

std::string executablePath() {
    std::error_code failed;
    const fs::path exe = fs::read_symlink("/proc/self/exe", failed);
    if (failed) throw std::system_error(failed, "read /proc/self/exe");
    return withoutDeletedMark(exe.string());
}

void createDirectories(const std::string& path) {
    std::error_code failed;
    fs::create_directories(path, failed);
    requireDirectory(path, failed);
}

void createPrivateDirectory(const std::string& path) {
    std::error_code failed;
    fs::create_directories((fs::path(path) / "..").lexically_normal(), failed);
    if (!failed && ::mkdir(path.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        failed.assign(errno, std::generic_category());
    }
    requireDirectory(path, failed);
}

std::optional<std::pair<std::uint64_t, std::uint64_t>> directoryIdentity(const std::string& path) {
    FileStatus status{};
    if (::stat(path.c_str(), &status) != 0) return {};
    return {{status.st_dev, status.st_ino}};
}

void replaceFileContent(const std::string& path, const std::string& content) {
    const std::string target = realTarget(path);
    const std::optional<FileStatus> former = statusOf(target);
    if (former) refuseReadOnly(target, *former);
    try {
        replaceByNeighbour(target, former, content);
    } catch (const std::system_error& exc) {
        if (!former || !forbidsReplacing(exc.code())) throw;
        overwriteInPlace(target, content);
    }
}

AppendedFile::AppendedFile(const std::string& path)
    : _handle(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR)) {
    if (_handle < 0) fail("open", path);
}

AppendedFile::~AppendedFile() {
    ::close(static_cast<int>(_handle));
}

std::size_t AppendedFile::write(std::string_view data, std::error_code& failed) noexcept {
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n =
            ::write(static_cast<int>(_handle), data.data() + done, data.size() - done);
        if (n > 0) done += static_cast<std::size_t>(n);
        if (n < 0 && errno != EINTR) {
            failed.assign(errno, std::generic_category());
            break;
        }
    }
    return done;
}

bool AppendedFile::empty() const noexcept {
    struct stat status {};
    return ::fstat(static_cast<int>(_handle), &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_size == 0;
}

void* allocatePages(std::size_t bytes) {
    constexpr int kAnonymous = MAP_PRIVATE | MAP_ANONYMOUS;
    void* const pages = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, kAnonymous, -1, 0);
    if (pages == MAP_FAILED) throw std::bad_alloc();
    return pages;
}

void freePages(void* pages, std::size_t bytes) noexcept {
    ::munmap(pages, bytes);
}

std::string_view lineEnd() noexcept {
    return "\n";
}

std::string_view pathSeparators() noexcept {
    return "/";
}

void prepareConsole() noexcept {}

bool consoleIsTerminal() noexcept {
    return ::isatty(STDERR_FILENO) == 1;
}

void writeToConsole(std::string_view text) noexcept {
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

// Nothing is known but whether there is room; a reader that takes the rest slowly is waited for.
void printLine(const std::string& line, std::chrono::milliseconds patience) noexcept {
    pollfd output{STDOUT_FILENO, POLLOUT, 0};
    if (::poll(&output, 1, static_cast<int>(patience.count())) == 0) return;
    try {
        std::cout << line << std::endl;
    } catch (...) {
        // The host has asked its stream to throw.
    }
}

void beginBackgroundThread(const char* name) noexcept {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
    ::pthread_setname_np(::pthread_self(), name);
}

void keepLoaded() noexcept {
    Dl_info library{};
    if (::dladdr(reinterpret_cast<const void*>(&keepLoaded), &library) != 0) {
        ::dlopen(library.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
    }
}

void onFork(void (*inChild)()) noexcept {
    ::pthread_atfork(nullptr, nullptr, inChild);
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

std::vector<TcpConnection> tcpConnectionsTo(std::uint16_t port) {
    std::vector<TcpConnection> found;
    std::error_code unreadable;
    for (fs::directory_iterator entry("/dev/fd", unreadable), end; !unreadable && entry != end;
         entry.increment(unreadable)) {
        const int descriptor = std::atoi(entry->path().filename().c_str());
        if (peerPort(descriptor) == port) found.push_back({descriptor, identityOf(descriptor)});
    }
    return found;
}

void sendAtOnce(const TcpConnection& connection, bool atOnce) noexcept {
    if (identityOf(connection.descriptor) != connection.identity) return;
    const int on = atOnce ? 1 : 0;
    ::setsockopt(connection.descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool reusesListeningAddress() noexcept {
    return true;
}

const bool kRefusedConnectIsSlow = false;

const bool kSendTimeoutBoundsConnect = true;

std::vector<std::string> trustedAuthorities() {
    return {};
}

bool canJoinAtExit() noexcept {
    return true;
}

// A handler and no blocked signals: those would be inherited by every program that the host starts.
void catchTerminationRequests() {
    static const int initialised = ::sem_init(&terminationRequests, 0, 0);
    check(initialised, "sem_init");
    struct sigaction action {};
    action.sa_handler = onTerminationSignal;
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
        check(::sigaction(signal, &action, nullptr), "sigaction");
    }
}

void waitForTerminationRequest() {
    while (::sem_wait(&terminationRequests) != 0 && errno == EINTR) {
    }
}

}  // namespace kel::platform
