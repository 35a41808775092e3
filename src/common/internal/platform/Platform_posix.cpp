// Platform_posix.cpp - Linux, through POSIX calls and /proc.

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>

#include "Platform.h"

namespace fs = std::filesystem;

namespace kel::platform {

namespace {

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

bool canJoinAtExit() noexcept {
    return true;
}

}  // namespace kel::platform
