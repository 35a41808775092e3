// The Windows side of the platform seam, alone: one executable that needs nothing but the system,
// so that it also runs under Wine. scripts/test-windows builds and runs it.

#include <process.h>
#include <windows.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <system_error>
#include <thread>

#include "common/internal/platform/Platform.h"

namespace fs = std::filesystem;
namespace platform = kel::platform;

namespace {

int failures = 0;

void expect(bool holds, const std::string& what) {
    std::cout << (holds ? "  ok      " : "  FAILED  ") << what << std::endl;
    if (!holds) ++failures;
}

std::string utf8(const fs::path& path) {
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

bool replaced(const std::string& path, const std::string& content) {
    try {
        platform::replaceFileContent(path, content);
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

// The other is this executable again.
void findsProcessesByExactNameAndKillsByTheCommand() {
    const std::string name = "PlatformWindowsTest.exe";
    const auto child = reinterpret_cast<HANDLE>(
        ::_spawnl(_P_NOWAIT, platform::executablePath().c_str(), name.c_str(), "--wait", nullptr));
    const auto found = platform::processesByName(name);
    const std::vector<unsigned long> both{platform::currentProcessId(), ::GetProcessId(child)};
    expect(std::ranges::is_permutation(found, both), "finds itself twice");
    for (const char* other : {"PLATFORMWINDOWSTEST.EXE", "PlatformWindowsTest", ""}) {
        expect(platform::processesByName(other).empty(), std::string("finds nothing as ") + other);
    }
    const std::string command = platform::killCommand(both.back());
    expect(std::system(command.c_str()) == 0, "the command succeeds, " + command);
    expect(::WaitForSingleObject(child, 60000) == WAIT_OBJECT_0, "the other ends");
}

void switchesTheModeOfAConsole() {
    const HANDLE console = ::GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD plain = 0, switched = 0;
    ::GetConsoleMode(console, &plain);
    ::SetConsoleMode(console, plain & ~DWORD{ENABLE_VIRTUAL_TERMINAL_PROCESSING});
    ::SetConsoleOutputCP(437);
    platform::prepareConsole();
    ::GetConsoleMode(console, &switched);
    expect(::GetConsoleOutputCP() == CP_UTF8, "takes UTF-8");
    expect(switched == (plain | ENABLE_VIRTUAL_TERMINAL_PROCESSING), "adds the colour flag");
}

bool setsTheNamedEvent(const PROCESS_INFORMATION& host) {
    std::array<char, 16> name{};
    std::snprintf(name.data(), name.size(), "POCOTRM%08lX", host.dwProcessId);
    const HANDLE event = ::OpenEventA(EVENT_MODIFY_STATE, FALSE, name.data());
    return event && ::SetEvent(event) && ::CloseHandle(event);
}

// As the system does it: by a thread that it starts in the process, in a routine that stands at the
// same address in all of them.
template <DWORD event>
bool sendsConsoleEvent(const PROCESS_INFORMATION& host) {
    const auto routine = reinterpret_cast<LPTHREAD_START_ROUTINE>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleA("kernelbase"), "CtrlRoutine")));
    void* const which = reinterpret_cast<void*>(std::uintptr_t{event});
    return routine &&
           ::CreateRemoteThread(host.hProcess, nullptr, 0, routine, which, 0, nullptr) != nullptr;
}

bool endsTheSession(const PROCESS_INFORMATION& host) {
    for (int attempt = 0; attempt < 600; ++attempt) {
        for (HWND window = nullptr;
             (window = ::FindWindowExW(nullptr, window, L"KelCommonSession", nullptr));) {
            DWORD pid = 0;
            ::GetWindowThreadProcessId(window, &pid);
            if (pid == host.dwProcessId) return ::PostMessageW(window, WM_ENDSESSION, TRUE, 0);
        }
        ::Sleep(100);  // the window is made in the background
    }
    return false;
}

// The other is this executable again; it waits for a request to end.
void keepsARequestToEnd(const std::string& what, bool (*ask)(const PROCESS_INFORMATION&)) {
    const HANDLE ready = ::CreateEventA(nullptr, FALSE, FALSE, "kel-test-ready");
    STARTUPINFOA startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION child{};
    std::string command = "\"" + platform::executablePath() + "\" --await-end";
    ::CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                     &startup, &child);
    ::WaitForSingleObject(ready, 60000);
    DWORD code = 1;
    expect(ask(child), what + " can be sent");
    expect(::WaitForSingleObject(child.hProcess, 60000) == WAIT_OBJECT_0 &&
               ::GetExitCodeProcess(child.hProcess, &code) && code == 0,
           what + " ends the wait, not the process");
}

void keepsRequestsToEndTheProcess() {
    keepsARequestToEnd("the named event", setsTheNamedEvent);
    keepsARequestToEnd("Ctrl-Break", sendsConsoleEvent<CTRL_BREAK_EVENT>);
    keepsARequestToEnd("closing the console", sendsConsoleEvent<CTRL_CLOSE_EVENT>);
    keepsARequestToEnd("logging off", sendsConsoleEvent<CTRL_LOGOFF_EVENT>);
    keepsARequestToEnd("shutting down", sendsConsoleEvent<CTRL_SHUTDOWN_EVENT>);
    keepsARequestToEnd("the end of the session", endsTheSession);
}

void awaitEnd() {
    platform::catchTerminationRequests();
    ::SetEvent(::OpenEventA(EVENT_MODIFY_STATE, FALSE, "kel-test-ready"));
    platform::waitForTerminationRequest();
}

// In a folder whose name no 8-bit code page can hold, with both separators, longer than MAX_PATH.
void replacesFilesInOneStep() {
    const fs::path folder = fs::temp_directory_path() /
                            (L"kel-\u00e4\u6d4b-" + std::to_wstring(::GetCurrentProcessId()));
    const fs::path file = folder / L"caf\u00e9.json";
    const auto isAlone = [&](const std::string& content) {
        std::ifstream in(file, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {}) == content &&
               std::distance(fs::directory_iterator(folder), {}) == 1;
    };
    for (const char* content : {"old", "new\r\n"}) {
        platform::createPrivateDirectory(utf8(folder));  // may exist
        std::ofstream(fs::path(file) += ".tmp") << "left behind";
        expect(replaced(utf8(folder) + "/" + utf8(file.filename()), content) && isAlone(content),
               "writes byte for byte");
    }
    std::ifstream reader(file);  // as a virus scanner does
    expect(!replaced(utf8(file), "x") && isAlone("new\r\n"), "leaves a file that stays open alone");
    const std::jthread closer([&] { reader.close(); });
    expect(replaced(utf8(file), "newer") && isAlone("newer"), "replaces it once it is closed");
    ::SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY);
    expect(!replaced(utf8(file), "x") && isAlone("newer"), "refuses a read-only file");
    ::SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
    for (const std::string& path : {utf8(folder), utf8(file / "no"), utf8(file) + "\xff"}) {
        expect(!replaced(path, "x") && isAlone("newer"), "refuses " + path);
    }
    const fs::path level = std::wstring(120, L'x'), deep = folder / level / level / "a";
    platform::createDirectories(utf8(folder / level) + "//" + utf8(level / "a") + "/");
    expect(replaced(utf8(deep) + "/file", "deep"), "writes below a path longer than MAX_PATH");
    const auto id = platform::directoryIdentity(utf8(folder));
    expect(id && id == platform::directoryIdentity(utf8(folder / level / "..")) &&
               id != platform::directoryIdentity(utf8(deep)),
           "knows a folder by two names");
    ::DeleteFileW((L"\\\\?\\" + (deep / "file").wstring()).c_str());
    for (fs::path path = deep; path != folder; path = path.parent_path()) {
        ::RemoveDirectoryW((L"\\\\?\\" + path.wstring()).c_str());
    }
    fs::remove_all(folder);
}

// Wine sends pings through the socket of the system below, which may not be allowed.
void pingsWithoutAnAdministrator() {
    const auto answers = [](const std::vector<std::string>& addresses) {
        return platform::answersEcho(addresses, {48, 128, std::chrono::milliseconds(500)});
    };
    try {
        expect(answers({"127.0.0.1"}), "gets an answer from this computer");
        expect(answers({"no address", "127.0.0.1"}), "goes on to the next address of a host");
    } catch (const std::system_error& exc) {
        std::cout << "  skipped pings: " << exc.what() << std::endl;
    }
    for (const std::vector<std::string>& none : {{}, std::vector<std::string>{"no address"}}) {
        try {
            answers(none);
            expect(false, "pings nobody");
        } catch (const std::system_error&) {
            expect(true, "says when nothing could be sent");
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string argument = argc > 1 ? argv[1] : "";
    if (argument == "--wait") ::Sleep(60000);
    if (argument == "--await-end") awaitEnd();
    if (argument == "--on-a-console") {
        switchesTheModeOfAConsole();
    }
    if (!argument.empty()) return failures;
    findsProcessesByExactNameAndKillsByTheCommand();
    replacesFilesInOneStep();
    pingsWithoutAnAdministrator();
    keepsRequestsToEndTheProcess();
    return failures;
}
