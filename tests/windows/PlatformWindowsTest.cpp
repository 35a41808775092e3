// The Windows side of the platform seam, alone: one executable that needs nothing but the system,
// so that it also runs under Wine. scripts/test-windows builds and runs it.

#include <process.h>
#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <system_error>
#include <thread>

#include "common/internal/Platform.h"

namespace fs = std::filesystem;
namespace platform = kel::platform;

namespace {

constexpr DWORD kAtMostMilliseconds = 60000;

int failures = 0;

void expect(bool holds, const std::string& what) {
    std::cout << (holds ? "  ok      " : "  FAILED  ") << what << std::endl;
    if (!holds) ++failures;
}

void expectRefused(const std::function<void()>& call, const std::string& what) {
    bool refused = false;
    try {
        call();
    } catch (const std::system_error&) {
        refused = true;
    }
    expect(refused, "refuses " + what);
}

std::string utf8(const fs::path& path) {
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

std::string contentOf(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The other is this executable again.
void findsProcessesByExactNameAndKillsByTheCommand() {
    const std::string path = platform::executablePath();
    const std::string name = utf8(fs::path(path).filename());
    expect(name == "PlatformWindowsTest.exe", "knows its executable, " + path);
    const auto child = reinterpret_cast<HANDLE>(
        ::_spawnl(_P_NOWAIT, path.c_str(), "PlatformWindowsTest.exe", "--wait", nullptr));
    const DWORD pid = ::GetProcessId(child);

    std::vector<unsigned long> both{platform::currentProcessId(), pid};
    expect(std::ranges::is_permutation(platform::processesByName(name), both),
           "finds itself twice");
    for (const char* other : {"PLATFORMWINDOWSTEST.EXE", "PlatformWindowsTest", ""}) {
        expect(platform::processesByName(other).empty(), std::string("finds nothing as ") + other);
    }

    const std::string command = platform::killCommand(pid);
    expect(command == "taskkill /F /PID " + std::to_string(pid), command);
    expect(std::system(command.c_str()) == 0, "the command succeeds");
    expect(::WaitForSingleObject(child, kAtMostMilliseconds) == WAIT_OBJECT_0, "the other ends");
    expect(platform::processesByName(name).size() == 1, "it is in no list");
    ::CloseHandle(child);
}

// Standard output is a pipe or a file here.
void leavesOutputWithoutConsoleAlone() {
    const HANDLE before = ::GetStdHandle(STD_OUTPUT_HANDLE);
    for (const HANDLE output : {before, HANDLE(nullptr), INVALID_HANDLE_VALUE}) {
        ::SetStdHandle(STD_OUTPUT_HANDLE, output);
        platform::enableConsoleColors();
    }
    ::SetStdHandle(STD_OUTPUT_HANDLE, before);
    expect(::GetStdHandle(STD_OUTPUT_HANDLE) == before, "survives having no console");
}

void switchesTheModeOfAConsole() {
    const HANDLE console = ::GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD plain = 0;
    DWORD switched = 0;
    expect(::GetConsoleMode(console, &plain) != 0, "has a console");
    ::SetConsoleMode(console, plain & ~DWORD{ENABLE_VIRTUAL_TERMINAL_PROCESSING});
    platform::enableConsoleColors();
    ::GetConsoleMode(console, &switched);
    expect(switched == (plain | ENABLE_VIRTUAL_TERMINAL_PROCESSING), "adds the colour flag");
}

// In a folder whose name no 8-bit code page can hold.
void replacesFilesInOneStep() {
    const fs::path folder = fs::temp_directory_path() /
                            (L"kel-\u00e4\u6d4b-" + std::to_wstring(::GetCurrentProcessId()));
    const fs::path file = folder / L"caf\u00e9.json";
    const auto isAlone = [&](const std::string& content) {
        return contentOf(file) == content && std::distance(fs::directory_iterator(folder), {}) == 1;
    };
    for (int twice = 0; twice < 2; ++twice) platform::createPrivateDirectory(utf8(folder));
    for (const char* content : {"old", "new\r\n"}) {
        platform::replaceFileContent(utf8(file), content);
        expect(isAlone(content), "writes a file byte for byte and leaves no neighbour behind");
    }
    for (const std::string& path : {utf8(folder), utf8(file / "no"), utf8(file) + "\xff"}) {
        expectRefused([&] { platform::replaceFileContent(path, "x"); }, path);
    }
    {
        const std::ifstream reader(file);  // as a virus scanner does
        expectRefused([&] { platform::replaceFileContent(utf8(file), "x"); }, "an open file");
    }
    expect(isAlone("new\r\n"), "leaves everything as it was then");

    std::ifstream reader(file);
    std::thread closer([&] { reader.close(); });
    platform::replaceFileContent(utf8(file), "newer");
    closer.join();
    expect(isAlone("newer"), "replaces a file that is soon closed");
    fs::remove_all(folder);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string argument = argc > 1 ? argv[1] : "";
    if (argument == "--wait") {
        ::Sleep(kAtMostMilliseconds);
    } else if (argument == "--on-a-console") {
        switchesTheModeOfAConsole();
    } else {
        findsProcessesByExactNameAndKillsByTheCommand();
        leavesOutputWithoutConsoleAlone();
        replacesFilesInOneStep();
        std::cout << failures << " failures" << std::endl;
    }
    return failures;
}
