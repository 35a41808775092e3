#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Our only door to the system: Platform_posix.cpp and Platform_windows.cpp implement it, CMake
// compiles one of them. It depends on nothing but the system and the standard library. Paths and
// names are UTF-8. All functions may be called from any thread.
namespace kel::platform {

/// Full path of the running executable.
/// @throws std::system_error  the system does not tell.
std::string executablePath();

/// Creates `path`, its parents existing, for the owner only where the system knows that (POSIX).
/// A directory that exists stays as it is.
/// @throws std::system_error  it cannot be created.
void createPrivateDirectory(const std::string& path);

/// Puts `content` in the place of the file `path` in one step: written to a neighbour file, which
/// is then renamed over it. The file is readable by the owner only (POSIX).
/// @throws std::system_error  what failed and on which path; the old file is as it was.
void replaceFileContent(const std::string& path, const std::string& content);

/// Lets colour sequences on standard output through. Failures are ignored; without a console, or
/// where terminals take them anyway, it does nothing.
void enableConsoleColors() noexcept;

/// Writes to standard error past the C and C++ streams: while those wait for a console that takes
/// nothing they hold locks, for which the end of the process would wait in turn. Errors are
/// ignored. (Windows: through the C stream.)
void writeToConsole(const std::string& text) noexcept;

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

/// Turns Nagle's algorithm off for this process's TCP connections to `port`, so that a small packet
/// is sent at once and not behind the peer's delayed acknowledgement, some 40 ms later. For a
/// library that gives no access to its socket. Does nothing on Windows; failures are ignored.
void sendAtOnceTo(std::uint16_t port);

/// Whether a static destructor may join threads. Not on Windows, where it runs under the loader
/// lock, which an ending thread needs.
bool canJoinAtExit() noexcept;

}  // namespace kel::platform
