// Platform_windows.cpp - Windows, through its own API alone.
//
// Strings are UTF-8 outside and UTF-16 at every call that takes a path. The process snapshot is the
// one exception: its 8-bit record carries names in the system's ANSI code page.

// The definitions that come with POCO would turn the process snapshot's names into the wide ones;
// the 8-bit forms have no names of their own.
#undef UNICODE
#undef _UNICODE

#include <winsock2.h>
#include <ws2tcpip.h>
// Needs winsock2.h before it.
#include <windows.h>
// Need windows.h before them.
#include <ipexport.h>
#include <tlhelp32.h>
// Needs ipexport.h before it.
#include <icmpapi.h>

#include <atomic>
#include <cstdio>
#include <system_error>

#include "Platform.h"

namespace kel::platform {

namespace {

class Handle {
public:
    explicit Handle(HANDLE handle) : _handle(handle) {}
    ~Handle() {
        if (_handle) ::CloseHandle(_handle);
    }

    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    HANDLE get() const { return _handle; }

private:
    HANDLE _handle;
};

[[noreturn]] void fail(const std::string& what, const std::string& path) {
    const auto code = static_cast<int>(::GetLastError());
    throw std::system_error(code, std::system_category(), what + " " + path);
}

std::wstring wide(const std::string& utf8) {
    const int length = static_cast<int>(utf8.size());
    std::wstring text(utf8.size(), L'\0');  // never more units than bytes
    const int units = ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), length,
                                            text.data(), length);
    if (units == 0 && length != 0) fail("read as UTF-8", utf8);
    text.resize(static_cast<std::size_t>(units));
    return text;
}

std::string narrow(const std::wstring& text) {
    const int length = static_cast<int>(text.size());
    std::string utf8(3 * text.size(), '\0');  // never more than three bytes a unit
    const int bytes = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, utf8.data(),
                                            static_cast<int>(utf8.size()), nullptr, nullptr);
    utf8.resize(static_cast<std::size_t>(bytes));
    return utf8;
}

// The process id keeps two processes apart, the count two threads.
std::string neighbourOf(const std::string& path) {
    static std::atomic<unsigned> count{0};
    return path + "." + std::to_string(currentProcessId()) + "-" + std::to_string(++count) + ".tmp";
}

void writeAll(HANDLE file, const std::string& content, const std::string& path) {
    for (std::size_t done = 0; done < content.size();) {
        constexpr std::size_t kMostAtOnce = 1 << 20;
        const std::size_t rest = content.size() - done;
        DWORD written = 0;
        if (!::WriteFile(file, content.data() + done,
                         static_cast<DWORD>(rest < kMostAtOnce ? rest : kMostAtOnce), &written,
                         nullptr)) {
            fail("write", path);
        }
        done += written;
    }
    if (!::FlushFileBuffers(file)) fail("write", path);
}

void writeNewFile(const std::string& path, const std::string& content) {
    const HANDLE file = ::CreateFileW(wide(path).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) fail("create", path);
    const Handle closer(file);
    writeAll(file, content, path);
}

bool heldByAnother(DWORD error) {
    return error == ERROR_SHARING_VIOLATION || error == ERROR_ACCESS_DENIED;
}

// Virus scanners and readers hold a file for a moment, during which it cannot be replaced.
bool renameOver(const std::wstring& from, const std::wstring& to) {
    constexpr int kAttempts = 20;
    constexpr DWORD kPauseMilliseconds = 10;
    for (int attempt = 1;; ++attempt) {
        if (::MoveFileExW(from.c_str(), to.c_str(),
                          MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
            return true;
        }
        if (attempt == kAttempts || !heldByAnother(::GetLastError())) return false;
        ::Sleep(kPauseMilliseconds);
    }
}

// The system's own ping, which takes no administrator, unlike a raw socket.
class EchoService {
public:
    EchoService() : _handle(::IcmpCreateFile()) {
        if (_handle == INVALID_HANDLE_VALUE) fail("open", "the echo service");
    }
    ~EchoService() { ::IcmpCloseHandle(_handle); }
    EchoService(const EchoService&) = delete;
    EchoService& operator=(const EchoService&) = delete;

    // @return IP_SUCCESS for an answer, else what the system says.
    DWORD ask(const std::string& address, const EchoRequest& request,
              std::chrono::milliseconds timeout) const {
        IN_ADDR target{};
        if (::InetPtonA(AF_INET, address.c_str(), &target) != 1) return ERROR_INVALID_PARAMETER;
        std::vector<char> data(request.dataBytes, 'k');
        // Room for the answer and, as the system demands, for an error message and its status.
        std::vector<char> reply(sizeof(ICMP_ECHO_REPLY) + data.size() + 8 + 2 * sizeof(void*));
        IP_OPTION_INFORMATION options{};
        options.Ttl = static_cast<UCHAR>(request.ttl);
        const DWORD answers = ::IcmpSendEcho(
            _handle, target.s_addr, data.data(), static_cast<WORD>(data.size()), &options,
            reply.data(), static_cast<DWORD>(reply.size()), static_cast<DWORD>(timeout.count()));
        return answers == 0 ? ::GetLastError()
                            : reinterpret_cast<const ICMP_ECHO_REPLY*>(reply.data())->Status;
    }

private:
    const HANDLE _handle;
};

// An answer of the network, such as a time-out or "unreachable", as against a request that never
// left.
bool wasSent(DWORD status) {
    return status == IP_SUCCESS || (status > IP_STATUS_BASE && status < IP_GENERAL_FAILURE);
}

}  // namespace

std::string executablePath() {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length =
            ::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0) fail("find", "the executable");
        if (length < path.size()) {
            path.resize(length);
            return narrow(path);
        }
        path.resize(2 * path.size());  // cut off: the path is longer
    }
}

void createPrivateDirectory(const std::string& path) {
    if (!::CreateDirectoryW(wide(path).c_str(), nullptr) &&
        ::GetLastError() != ERROR_ALREADY_EXISTS) {
        fail("create directory", path);
    }
}

void replaceFileContent(const std::string& path, const std::string& content) {
    const std::string neighbour = neighbourOf(path);
    try {
        writeNewFile(neighbour, content);
        if (!renameOver(wide(neighbour), wide(path))) fail("replace", path);
    } catch (...) {
        ::DeleteFileW(wide(neighbour).c_str());
        throw;
    }
}

void enableConsoleColors() noexcept {
    const HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    if (output && ::GetConsoleMode(output, &mode)) {
        ::SetConsoleMode(output, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
    }
}

void writeToConsole(const std::string& text) noexcept {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

// A snapshot that was refused is no null handle: it has no first process.
std::vector<unsigned long> processesByName(const std::string& name) {
    std::vector<unsigned long> pids;
    const Handle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    if (!snapshot.get()) return pids;
    PROCESSENTRY32 entry{};
    static_assert(sizeof(entry) == 304, "the 8-bit record");
    entry.dwSize = sizeof(entry);
    for (BOOL found = ::Process32First(snapshot.get(), &entry); found;
         found = ::Process32Next(snapshot.get(), &entry)) {
        if (name == entry.szExeFile) pids.push_back(entry.th32ProcessID);
    }
    return pids;
}

unsigned long currentProcessId() noexcept {
    return ::GetCurrentProcessId();
}

std::string killCommand(unsigned int pid) {
    return "taskkill /F /PID " + std::to_string(pid);
}

const std::vector<std::string>& pluginSuffixes() {
    static const std::vector<std::string> suffixes{".dll"};
    return suffixes;
}

bool answersEcho(const std::vector<std::string>& addresses, const EchoRequest& request) {
    const EchoService service;
    const auto share = request.timeout / static_cast<int>(addresses.size() + addresses.empty());
    DWORD refusal = ERROR_INVALID_PARAMETER;
    bool sent = false;
    for (const std::string& address : addresses) {
        const DWORD status = service.ask(address, request, share);
        if (status == IP_SUCCESS) return true;
        if (wasSent(status))
            sent = true;
        else
            refusal = status;
    }
    if (sent) return false;
    ::SetLastError(refusal);
    fail("send an echo request to", addresses.empty() ? "nobody" : addresses.back());
}

void sendAtOnceTo(std::uint16_t) {}

bool canJoinAtExit() noexcept {
    return false;
}

}  // namespace kel::platform
