// The Windows side of the platform seam, alone: one executable that needs nothing but the system,
// so that it also runs under Wine. scripts/test-windows builds and runs it.

#include <process.h>
#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <system_error>
#include <thread>

#include "common/internal/Platform.h"

namespace fs = std::filesystem;
namespace platform = kel::platform;

namespace {

int failures = 0;

void expect(bool holds, const std::string& what) {
    std::cout << (holds ? "  ok      " : "  FAILED  ") << what << std::endl;
    if (!holds) ++failures;
}

bool refused(const std::function<void()>& call) {
    try {
        call();
        return false;
    } catch (const std::system_error&) {
        return true;
    }
}

std::string utf8(const fs::path& path) {
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

// The other is this executable again.
void findsProcessesByExactNameAndKillsByTheCommand() {
    const std::string path = platform::executablePath();
    const std::string name = utf8(fs::path(path).filename());
    expect(name == "PlatformWindowsTest.exe", "knows its executable, " + path);
    const auto child = reinterpret_cast<HANDLE>(
        ::_spawnl(_P_NOWAIT, path.c_str(), "PlatformWindowsTest.exe", "--wait", nullptr));
    const DWORD pid = ::GetProcessId(child);

    const std::vector<unsigned long> both{platform::currentProcessId(), pid};
    const auto found = platform::processesByName(name);
    expect(std::ranges::is_permutation(found, both), "finds itself twice");
    for (const char* other : {"PLATFORMWINDOWSTEST.EXE", "PlatformWindowsTest", ""}) {
        expect(platform::processesByName(other).empty(), std::string("finds nothing as ") + other);
    }

    const std::string command = platform::killCommand(pid);
    expect(command == "taskkill /F /PID " + std::to_string(pid), command);
    expect(std::system(command.c_str()) == 0, "the command succeeds");
    expect(::WaitForSingleObject(child, 60000) == WAIT_OBJECT_0, "the other ends");
    expect(platform::processesByName(name).size() == 1, "it is in no list");
    ::CloseHandle(child);
}

void leavesOutputWithoutConsoleAlone() {
    const HANDLE before = ::GetStdHandle(STD_OUTPUT_HANDLE);  // a pipe or a file
    for (const HANDLE output : {HANDLE(nullptr), INVALID_HANDLE_VALUE, before}) {
        ::SetStdHandle(STD_OUTPUT_HANDLE, output);
        platform::enableConsoleColors();
    }
    expect(::GetStdHandle(STD_OUTPUT_HANDLE) == before, "survives having no console");
}

void switchesTheModeOfAConsole() {
    const HANDLE console = ::GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD plain = 0, switched = 0;
    expect(::GetConsoleMode(console, &plain), "has a console");
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
    const auto isAlone = [&](const std::string& expected) {
        std::ifstream in(file, std::ios::binary);
        const std::string content(std::istreambuf_iterator<char>(in), {});
        return content == expected && std::distance(fs::directory_iterator(folder), {}) == 1;
    };
    for (const char* content : {"old", "new\r\n"}) {
        platform::createPrivateDirectory(utf8(folder));  // may exist
        platform::replaceFileContent(utf8(file), content);
        expect(isAlone(content), "writes a file byte for byte and leaves no neighbour behind");
    }
    const auto replace = [&] { platform::replaceFileContent(utf8(file), "newer"); };
    std::ifstream reader(file);  // as a virus scanner does
    expect(refused(replace) && isAlone("new\r\n"), "leaves a file that stays open as it was");
    const std::jthread closer([&] { reader.close(); });
    replace();
    expect(isAlone("newer"), "replaces it once it is closed");
    for (const std::string& path : {utf8(folder), utf8(file / "no"), utf8(file) + "\xff"}) {
        expect(refused([&] { platform::replaceFileContent(path, "x"); }), "refuses " + path);
    }
    expect(isAlone("newer"), "leaves everything as it was then");
    fs::remove_all(folder);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string argument = argc > 1 ? argv[1] : "";
    if (argument == "--wait") ::Sleep(60000);
    if (argument == "--on-a-console") switchesTheModeOfAConsole();
    if (!argument.empty()) return failures;
    findsProcessesByExactNameAndKillsByTheCommand();
    leavesOutputWithoutConsoleAlone();
    replacesFilesInOneStep();
    return failures;
}
