// The Windows side of the platform seam, alone: one executable that needs nothing but the system,
// so that it also runs under Wine. scripts/test-windows builds and runs it.

#include <process.h>
#include <windows.h>

#include <algorithm>
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
        std::ifstream in(file, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {}) == content &&
               std::distance(fs::directory_iterator(folder), {}) == 1;
    };
    for (const char* content : {"old", "new\r\n"}) {
        platform::createPrivateDirectory(utf8(folder));  // may exist
        expect(replaced(utf8(file), content) && isAlone(content), "writes byte for byte");
    }
    std::ifstream reader(file);  // as a virus scanner does
    expect(!replaced(utf8(file), "x") && isAlone("new\r\n"), "leaves a file that stays open alone");
    const std::jthread closer([&] { reader.close(); });
    expect(replaced(utf8(file), "newer") && isAlone("newer"), "replaces it once it is closed");
    for (const std::string& path : {utf8(folder), utf8(file / "no"), utf8(file) + "\xff"}) {
        expect(!replaced(path, "x") && isAlone("newer"), "refuses " + path);
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
    if (argument == "--on-a-console") switchesTheModeOfAConsole();
    if (!argument.empty()) return failures;
    findsProcessesByExactNameAndKillsByTheCommand();
    replacesFilesInOneStep();
    pingsWithoutAnAdministrator();
    return failures;
}
