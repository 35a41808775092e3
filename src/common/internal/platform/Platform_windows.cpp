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
#include <wincrypt.h>
// Needs ipexport.h before it.
#include <icmpapi.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <future>
#include <iostream>
#include <memory>
#include <new>
#include <system_error>
#include <thread>

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

// A path as the calls take it. From 248 characters on, where folders begin to fail, it needs a
// prefix and is then read as it stands: with no slash and no separator twice.
std::wstring forAnyLength(const std::string& path) {
    constexpr std::size_t kLong = 248;
    std::wstring text = wide(path);
    std::replace(text.begin(), text.end(), L'/', L'\\');
    if (text.size() < kLong || text.starts_with(L"\\\\?\\")) return text;
    const bool onServer = text.starts_with(L"\\\\");
    const auto twice = [](wchar_t a, wchar_t b) { return a == L'\\' && b == L'\\'; };
    text.erase(std::unique(text.begin(), text.end(), twice), text.end());
    return (onServer ? L"\\\\?\\UNC" : L"\\\\?\\") + text;
}

HANDLE asHandle(std::intptr_t handle) {
    return reinterpret_cast<HANDLE>(handle);
}

bool isConsole(HANDLE handle) {
    DWORD mode = 0;
    return handle && ::GetConsoleMode(handle, &mode);
}

void writeTo(HANDLE handle, std::string_view text) {
    while (!text.empty()) {
        DWORD written = 0;
        if (!::WriteFile(handle, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ||
            written == 0) {
            return;
        }
        text.remove_prefix(written);
    }
}

void letColorsThrough(HANDLE handle) {
    DWORD mode = 0;
    if (handle && ::GetConsoleMode(handle, &mode)) {
        ::SetConsoleMode(handle, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
    }
}

bool heldByAnother(DWORD error) {
    return error == ERROR_SHARING_VIOLATION || error == ERROR_ACCESS_DENIED;
}

// Tries again for a fifth of a second: virus scanners and readers hold a file for a moment, during
// which it cannot be replaced, and another process that saves holds the neighbour file.
template <typename Call>
bool succeedsSoon(Call&& call) {
    constexpr int kAttempts = 20;
    constexpr DWORD kPauseMilliseconds = 10;
    for (int attempt = 1; !call(); ++attempt) {
        if (attempt == kAttempts || !heldByAnother(::GetLastError())) return false;
        ::Sleep(kPauseMilliseconds);
    }
    return true;
}

void refuseReadOnly(const std::string& path) {
    const DWORD attributes = ::GetFileAttributesW(forAnyLength(path).c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY)) {
        ::SetLastError(ERROR_ACCESS_DENIED);
        fail("write read-only file", path);
    }
}

bool isDirectory(const std::wstring& path) {
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

// `path` is for the text of the failure.
void createWithParents(const std::wstring& folder, const std::string& path) {
    if (isDirectory(folder)) return;
    const std::size_t end = folder.find_last_of(L'\\');
    if (end != folder.npos && end > 0) createWithParents(folder.substr(0, end), path);
    if (!::CreateDirectoryW(folder.c_str(), nullptr) && !isDirectory(folder)) {
        fail("create directory", path);
    }
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
    HANDLE file = INVALID_HANDLE_VALUE;
    const bool created = succeedsSoon([&] {
        file = ::CreateFileW(forAnyLength(path).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                             FILE_ATTRIBUTE_NORMAL, nullptr);
        return file != INVALID_HANDLE_VALUE;
    });
    if (!created) fail("create", path);
    const Handle closer(file);
    writeAll(file, content, path);
}

bool renameOver(const std::wstring& from, const std::wstring& to) {
    return succeedsSoon([&] {
        return ::MoveFileExW(from.c_str(), to.c_str(),
                             MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
    });
}

// By the name that Poco::Process::requestTermination() sets: the one request for a process without
// a console.
HANDLE terminationRequest() {
    static const HANDLE event = [] {
        std::array<wchar_t, 16> name{};
        ::swprintf_s(name.data(), name.size(), L"POCOTRM%08lX", ::GetCurrentProcessId());
        return ::CreateEventW(nullptr, FALSE, FALSE, name.data());
    }();
    return event;
}

// For what ends the process as soon as the caller returns, and in any case after some seconds.
// Until then the host has time for its own end.
void requestEndAndHoldItUp() {
    ::SetEvent(terminationRequest());
    ::Sleep(60000);
}

// Session 0 is that of the services, which stay while users come and go.
bool isInServicesSession() {
    DWORD session = 0;
    return ::ProcessIdToSessionId(::GetCurrentProcessId(), &session) && session == 0;
}

BOOL WINAPI onConsoleEvent(DWORD event) {
    if (event == CTRL_LOGOFF_EVENT && isInServicesSession()) return TRUE;
    if (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT) {
        ::SetEvent(terminationRequest());
    } else {
        requestEndAndHoldItUp();
    }
    return TRUE;
}

LRESULT CALLBACK onMessage(HWND window, UINT message, WPARAM ends, LPARAM details) {
    if (message == WM_ENDSESSION && ends) requestEndAndHoldItUp();
    return ::DefWindowProcW(window, message, ends, details);
}

// A process that has loaded user32.dll, as POCO does by way of shell32.dll, is told of the end of
// its session by a message to its windows and by no console event. Hence one that is never shown.
void watchSession() {
    WNDCLASSW form{};
    form.lpfnWndProc = onMessage;
    form.hInstance = ::GetModuleHandleW(nullptr);
    form.lpszClassName = L"KelCommonSession";
    ::RegisterClassW(&form);
    if (!::CreateWindowExW(0, form.lpszClassName, L"", WS_OVERLAPPED, 0, 0, 0, 0, nullptr, nullptr,
                           form.hInstance, nullptr)) {
        return;
    }
    MSG message;
    while (::GetMessageW(&message, nullptr, 0, 0) > 0) ::DispatchMessageW(&message);
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

// A certificate may be trusted for other purposes alone, such as signed mail.
bool isTrustedForServers(PCCERT_CONTEXT certificate) {
    alignas(CERT_ENHKEY_USAGE) std::array<std::byte, 4096> buffer;
    auto* const usage = reinterpret_cast<CERT_ENHKEY_USAGE*>(buffer.data());
    auto size = static_cast<DWORD>(buffer.size());
    if (!::CertGetEnhancedKeyUsage(certificate, 0, usage, &size)) return false;
    if (usage->cUsageIdentifier == 0) {  // for all purposes, or for none
        return static_cast<HRESULT>(::GetLastError()) == CRYPT_E_NOT_FOUND;
    }
    const std::vector<std::string> purposes(usage->rgpszUsageIdentifier,
                                            usage->rgpszUsageIdentifier + usage->cUsageIdentifier);
    return std::ranges::count(purposes, szOID_PKIX_KP_SERVER_AUTH) > 0;
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

void createDirectories(const std::string& path) {
    std::wstring folder = forAnyLength(path);
    while (folder.ends_with(L'\\')) folder.pop_back();
    createWithParents(folder, path);
}

void createPrivateDirectory(const std::string& path) {
    createDirectories(path);
}

std::optional<std::pair<std::uint64_t, std::uint64_t>> directoryIdentity(const std::string& path) {
    const HANDLE folder =
        ::CreateFileW(forAnyLength(path).c_str(), FILE_READ_ATTRIBUTES,
                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                      OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (folder == INVALID_HANDLE_VALUE) return {};
    const Handle closer(folder);
    BY_HANDLE_FILE_INFORMATION information{};
    if (!::GetFileInformationByHandle(folder, &information)) return {};
    return {{information.dwVolumeSerialNumber,
             std::uint64_t{information.nFileIndexHigh} << 32 | information.nFileIndexLow}};
}

void replaceFileContent(const std::string& path, const std::string& content) {
    refuseReadOnly(path);
    const std::string neighbour = path + ".tmp";
    try {
        writeNewFile(neighbour, content);
        if (!renameOver(forAnyLength(neighbour), forAnyLength(path))) fail("replace", path);
    } catch (...) {
        ::DeleteFileW(forAnyLength(neighbour).c_str());
        throw;
    }
}

AppendedFile::AppendedFile(const std::string& path)
    : _handle(reinterpret_cast<std::intptr_t>(
          ::CreateFileW(forAnyLength(path).c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES,
                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                        OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr))) {
    if (asHandle(_handle) == INVALID_HANDLE_VALUE) fail("open", path);
}

AppendedFile::~AppendedFile() {
    ::CloseHandle(asHandle(_handle));
}

std::size_t AppendedFile::write(std::string_view data, std::error_code& failed) noexcept {
    std::size_t done = 0;
    while (done < data.size()) {
        DWORD written = 0;
        if (!::WriteFile(asHandle(_handle), data.data() + done,
                         static_cast<DWORD>(data.size() - done), &written, nullptr)) {
            failed.assign(static_cast<int>(::GetLastError()), std::system_category());
            break;
        }
        done += written;
    }
    return done;
}

bool AppendedFile::empty() const noexcept {
    LARGE_INTEGER size{};
    return ::GetFileSizeEx(asHandle(_handle), &size) && size.QuadPart == 0;
}

void* allocatePages(std::size_t bytes) {
    void* const pages = ::VirtualAlloc(nullptr, bytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    if (!pages) throw std::bad_alloc();
    return pages;
}

void freePages(void* pages, std::size_t) noexcept {
    ::VirtualFree(pages, 0, MEM_RELEASE);
}

std::string_view lineEnd() noexcept {
    return "\r\n";
}

std::string_view pathSeparators() noexcept {
    return "/\\";
}

void prepareConsole() noexcept {
    letColorsThrough(::GetStdHandle(STD_OUTPUT_HANDLE));
    letColorsThrough(::GetStdHandle(STD_ERROR_HANDLE));
    if (consoleIsTerminal()) ::SetConsoleOutputCP(CP_UTF8);
}

bool consoleIsTerminal() noexcept {
    return isConsole(::GetStdHandle(STD_ERROR_HANDLE));
}

void writeToConsole(std::string_view text) noexcept {
    writeTo(::GetStdHandle(STD_ERROR_HANDLE), text);
}

// A selection in the window stops a console for as long as it lasts, and nothing tells. So another
// thread writes, past the C stream, whose lock the end of the process needs.
void printLine(const std::string& line, std::chrono::milliseconds patience) noexcept {
    try {
        const HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
        if (!isConsole(output)) {
            std::cout << line << std::endl;
            return;
        }
        const auto done = std::make_shared<std::promise<void>>();
        std::thread writer([output, done, text = line + "\r\n"] {
            writeTo(output, text);
            done->set_value();
        });
        if (done->get_future().wait_for(patience) == std::future_status::ready) {
            writer.join();
        } else {
            keepLoaded();
            writer.detach();
        }
    } catch (...) {
        // No thread is to be had, or the host has asked its stream to throw.
    }
}

// Threads have neither signals nor, before Windows 10, names.
void beginBackgroundThread(const char*) noexcept {}

void keepLoaded() noexcept {
    HMODULE library = nullptr;
    ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                         reinterpret_cast<LPCWSTR>(&keepLoaded), &library);
}

void onFork(void (*)()) noexcept {}

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

// Sockets can be told from other handles only by calls that wait where a handle is that of a pipe
// from which another thread is reading.
std::vector<TcpConnection> tcpConnectionsTo(std::uint16_t) {
    return {};
}

void sendAtOnce(const TcpConnection&, bool) noexcept {}

bool reusesListeningAddress() noexcept {
    return false;
}

const bool kRefusedConnectIsSlow = true;

const bool kSendTimeoutBoundsConnect = false;

std::vector<std::string> trustedAuthorities() {
    const HCERTSTORE store = ::CertOpenSystemStoreW(0, L"ROOT");
    if (!store) fail("open the store of authorities", "ROOT");
    std::vector<std::string> authorities;
    PCCERT_CONTEXT certificate = nullptr;
    while ((certificate = ::CertEnumCertificatesInStore(store, certificate))) {
        if (!isTrustedForServers(certificate)) continue;
        authorities.emplace_back(reinterpret_cast<const char*>(certificate->pbCertEncoded),
                                 certificate->cbCertEncoded);
    }
    ::CertCloseStore(store, 0);
    return authorities;
}

bool canJoinAtExit() noexcept {
    return false;
}

void catchTerminationRequests() {
    static const bool installed = [] {
        const bool done =
            terminationRequest() && ::SetConsoleCtrlHandler(onConsoleEvent, TRUE) != 0;
        if (!done) {
            throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(),
                                    "SetConsoleCtrlHandler");
        }
        keepLoaded();  // the system calls the handlers for as long as the process lives
        if (!isInServicesSession()) std::thread(watchSession).detach();
        return done;
    }();
    static_cast<void>(installed);
}

void waitForTerminationRequest() {
    ::WaitForSingleObject(terminationRequest(), INFINITE);
}

}  // namespace kel::platform
