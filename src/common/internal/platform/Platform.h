#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

// All that the library asks of the system. Platform_posix.cpp and Platform_windows.cpp implement
// it, and CMake compiles one of the two. It depends on nothing but the system and the standard
// library. Paths and names are UTF-8. All functions may be called from any thread.
namespace kel::platform {

/// Full path of the running executable.
/// @throws std::system_error  the system does not tell.
std::string executablePath();

/// Creates the directory `path` and the parents that are missing. One that exists stays as it is.
/// @throws std::system_error  "create directory <path>" and the reason, whichever of them cannot
///         be created, or is no directory.
void createDirectories(const std::string& path);

/// As createDirectories(), but `path` itself is for its owner only where the system knows that
/// (POSIX).
void createPrivateDirectory(const std::string& path);

/// The same for all paths that lead to one directory, different for two directories; nothing if
/// `path` cannot be asked.
std::optional<std::pair<std::uint64_t, std::uint64_t>> directoryIdentity(const std::string& path);

/// Puts `content` in the place of the file `path` in one step: written to the neighbour
/// `path`.tmp, which is then renamed over it. A neighbour that a killed process has left behind is
/// replaced. A link stays a link; what it leads to is replaced.
///
/// POSIX: a new file is for its owner only, an old one keeps owner and mode. A file that nothing
/// can be renamed over (a mount point; a folder or an owner that is not ours) is written in place
/// instead: a reader may see half of it then, and so may the next start after a power failure.
/// Windows: access rights are those of the folder. A file that is held open by somebody is tried
/// again for a fifth of a second.
///
/// Threads and processes that replace files of one folder wait for each other, 2 s at most.
/// @throws std::system_error  what failed and on which path; the old file is as it was. A file that
///         is read-only, or no regular file, is refused.
void replaceFileContent(const std::string& path, const std::string& content);

/// A file that is only appended to, closed by the destructor. Others may read, rename and remove it
/// meanwhile. Threads: one at a time.
class AppendedFile {
public:
    /// Opens `path`, and creates it for the owner only (POSIX) where it does not exist.
    /// @throws std::system_error  it cannot be opened.
    explicit AppendedFile(const std::string& path);
    ~AppendedFile();
    AppendedFile(const AppendedFile&) = delete;
    AppendedFile& operator=(const AppendedFile&) = delete;

    /// @return how many bytes were written: fewer than `data` has only where `failed` says why.
    std::size_t write(std::string_view data, std::error_code& failed) noexcept;

    bool empty() const noexcept;

private:
    std::intptr_t _handle;
};

/// Memory in pages of its own, which the system has back as soon as they are freed. What comes and
/// goes in large blocks would otherwise leave the process's heap larger for good.
/// @throws std::bad_alloc  there is none.
void* allocatePages(std::size_t bytes);

/// @param bytes  as they were asked for.
void freePages(void* pages, std::size_t bytes) noexcept;

/// What ends a line in a text file.
std::string_view lineEnd() noexcept;

/// The characters that separate the names in a path.
std::string_view pathSeparators() noexcept;

/// Lets colour sequences and UTF-8 through where the console needs to be told. Failures are
/// ignored; without a console it does nothing.
void prepareConsole() noexcept;

/// Whether standard error is a terminal.
bool consoleIsTerminal() noexcept;

/// Writes to standard error past the C and C++ streams: while those wait for a console that takes
/// nothing they hold locks, for which the end of the process would wait in turn. Errors are
/// ignored.
void writeToConsole(std::string_view text) noexcept;

/// Prints `line`, and the line's end, on standard output, unless that has taken nothing for
/// `patience`.
void printLine(const std::string& line, std::chrono::milliseconds patience) noexcept;

/// To be called first on a thread of the library's own that calls no host code: names it, and
/// leaves signals, such as the one for a pipe that nobody reads any more, to the host's threads.
void beginBackgroundThread(const char* name) noexcept;

/// Keeps the library's code in memory until the process ends, where a thread had to be left behind
/// in it.
void keepLoaded() noexcept;

/// Has `inChild` run in each process that is forked from this one, where there is such a thing. It
/// may do nothing but set atomic variables.
void onFork(void (*inChild)()) noexcept;

/// Ids of the processes whose executable file name is `name`, byte for byte, in system order. On
/// Windows the names come in the system's ANSI code page, the one text here that is not UTF-8.
std::vector<unsigned long> processesByName(const std::string& name);

unsigned long currentProcessId() noexcept;

/// Shell command that ends the process `pid` at once.
std::string killCommand(unsigned int pid);

/// File name endings of plug-in libraries.
const std::vector<std::string>& pluginSuffixes();

struct EchoRequest {
    std::size_t dataBytes;
    int ttl;  // hops
    std::chrono::milliseconds timeout;
};

/// Sends an ICMP echo request to each of the IPv4 addresses, given with dots, and waits for the
/// first answer. Calls at the same time do not see each other's answers. Where several addresses
/// are silent, Windows asks them one after the other and shares the time-out out among them.
/// @return false if none has answered in time.
/// @throws std::system_error  nothing could be sent, for want of the right to or of a route.
bool answersEcho(const std::vector<std::string>& addresses, const EchoRequest& request);

/// A TCP connection of this process that a library made which gives no access to it.
struct TcpConnection {
    int descriptor;
    /// Tells this connection from a later one with the same descriptor.
    std::uint64_t identity;

    bool operator==(const TcpConnection&) const = default;
};

/// Those to `port`. Empty on Windows, and where they cannot be listed.
std::vector<TcpConnection> tcpConnectionsTo(std::uint16_t port);

/// Turns Nagle's algorithm off, so that a small packet is sent at once and not behind the peer's
/// delayed acknowledgement, some 40 ms later; or on, so that packets are gathered meanwhile. Does
/// nothing where the connection is closed.
void sendAtOnce(const TcpConnection& connection, bool atOnce) noexcept;

/// Whether a listening socket has to reuse its address, so that a host which is started again finds
/// its port at once. Not on Windows, where that would let two processes share a port.
bool reusesListeningAddress() noexcept;

/// Whether a library that waits for a non-blocking connect to become writable learns of a refusal
/// only by its time-out, as on Windows, where select() reports a refusal as an exception.
extern const bool kRefusedConnectIsSlow;

/// Whether a socket's send time-out is also the longest that a blocking connect takes, as on Linux.
extern const bool kSendTimeoutBoundsConnect;

/// The certificates of the authorities that the system trusts to tell servers, in DER, where it
/// keeps them in a store of its own, as Windows does. None elsewhere.
std::vector<std::string> trustedAuthorities();

/// Whether a static destructor may join threads. Not on Windows, where it runs under the loader
/// lock, which an ending thread needs.
bool canJoinAtExit() noexcept;

/// Keeps requests to end the process, by signal or by console event, for
/// waitForTerminationRequest() instead of letting them end it. Repeatable.
/// @throws std::system_error  the system refuses.
void catchTerminationRequests();

/// Waits for such a request; catchTerminationRequests() comes first.
void waitForTerminationRequest();

}  // namespace kel::platform
