// PlatformWindowsTest.cpp - the Windows side of the platform seam, alone: one executable that needs
// nothing but the system, so that it also runs under Wine. scripts/test-windows builds and runs it.

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "common/internal/Platform.h"

namespace platform = kel::platform;

namespace {

constexpr const char* kChildArgument = "--wait";
constexpr const char* kConsoleArgument = "--on-a-console";
constexpr DWORD kColors = 4;
constexpr DWORD kAtMostMilliseconds = 60000;

int failures = 0;

void expect(bool holds, const std::string& what) {
    std::cout << (holds ? "  ok      " : "  FAILED  ") << what << std::endl;
    if (!holds) ++failures;
}

bool throwsSystemError(const std::function<void()>& call) {
    try {
        call();
        return false;
    } catch (const std::system_error&) {
        return true;
    }
}

std::string ownName() {
    const std::string path = platform::executablePath();
    return path.substr(path.find_last_of("\\/") + 1);
}

std::string upperCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char c) {
        return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    });
    return text;
}

bool contains(const std::vector<unsigned long>& pids, unsigned long pid) {
    return std::count(pids.begin(), pids.end(), pid) == 1;
}

// This executable again, waiting to be ended; ended in any case with the object.
class Child {
public:
    Child() {
        STARTUPINFOA startup{};
        startup.cb = sizeof(startup);
        std::string command = "\"" + platform::executablePath() + "\" " + kChildArgument;
        if (!::CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                              &startup, &_process)) {
            throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(),
                                    command);
        }
    }

    ~Child() {
        ::TerminateProcess(_process.hProcess, 1);
        ::CloseHandle(_process.hThread);
        ::CloseHandle(_process.hProcess);
    }

    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    unsigned long pid() const { return _process.dwProcessId; }

    bool runs() const { return ::WaitForSingleObject(_process.hProcess, 0) == WAIT_TIMEOUT; }

    bool ends() const {
        return ::WaitForSingleObject(_process.hProcess, kAtMostMilliseconds) == WAIT_OBJECT_0;
    }

private:
    PROCESS_INFORMATION _process{};
};

// A fresh folder whose name, in UTF-8 here, no 8-bit code page can hold.
class Folder {
public:
    Folder() {
        wchar_t temp[MAX_PATH + 1];
        const DWORD length = ::GetTempPathW(MAX_PATH + 1, temp);
        _wide = std::wstring(temp, length) + L"kel-\u00e4\u6d4b-" +
                std::to_wstring(::GetCurrentProcessId());
        const int bytes =
            ::WideCharToMultiByte(CP_UTF8, 0, _wide.c_str(), -1, nullptr, 0, nullptr, nullptr);
        _path.resize(static_cast<std::size_t>(bytes));
        ::WideCharToMultiByte(CP_UTF8, 0, _wide.c_str(), -1, _path.data(), bytes, nullptr, nullptr);
        _path.pop_back();
    }

    ~Folder() {
        for (const std::wstring& name : names()) ::DeleteFileW((_wide + L"\\" + name).c_str());
        ::RemoveDirectoryW(_wide.c_str());
    }

    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    const std::string& path() const { return _path; }

    std::vector<std::wstring> names() const {
        std::vector<std::wstring> found;
        WIN32_FIND_DATAW entry;
        const HANDLE search = ::FindFirstFileW((_wide + L"\\*").c_str(), &entry);
        if (search == INVALID_HANDLE_VALUE) return found;
        do {
            const std::wstring name = entry.cFileName;
            if (name != L"." && name != L"..") found.push_back(name);
        } while (::FindNextFileW(search, &entry));
        ::FindClose(search);
        return found;
    }

    HANDLE open(const std::wstring& name, DWORD sharing) const {
        return ::CreateFileW((_wide + L"\\" + name).c_str(), GENERIC_READ, sharing, nullptr,
                             OPEN_EXISTING, 0, nullptr);
    }

    std::string content(const std::wstring& name) const {
        const HANDLE file = open(name, FILE_SHARE_READ);
        std::string text(1 << 16, '\0');
        DWORD length = 0;
        ::ReadFile(file, text.data(), static_cast<DWORD>(text.size()), &length, nullptr);
        ::CloseHandle(file);
        text.resize(length);
        return text;
    }

private:
    std::wstring _wide;
    std::string _path;
};

void findsProcessesByExactName() {
    const std::string name = ownName();
    const unsigned long self = platform::currentProcessId();
    expect(contains(platform::processesByName(name), self), "finds itself as " + name);
    for (const std::string& other :
         {upperCase(name), name.substr(0, name.size() - 1), name + "x", std::string()}) {
        expect(platform::processesByName(other).empty(), "finds nothing as \"" + other + "\"");
    }
}

void killsAChildByTheCommand() {
    const Child child;
    expect(contains(platform::processesByName(ownName()), child.pid()), "finds the child");
    expect(child.runs(), "the child runs");
    const std::string command = platform::killCommand(static_cast<unsigned int>(child.pid()));
    expect(command == "taskkill /F /PID " + std::to_string(child.pid()), command);
    expect(std::system(command.c_str()) == 0, "the command succeeds");
    expect(child.ends(), "the child has ended");
    expect(!contains(platform::processesByName(ownName()), child.pid()), "it is in no list");
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
    ::SetConsoleMode(console, plain & ~kColors);
    platform::enableConsoleColors();
    ::GetConsoleMode(console, &switched);
    expect(switched == (plain | kColors), "adds the colour flag to it and keeps the others");
}

void replacesFilesInOneStep() {
    const Folder folder;
    platform::createPrivateDirectory(folder.path());
    platform::createPrivateDirectory(folder.path());  // may exist
    const std::string file = folder.path() + "\\caf\xc3\xa9.json";
    const std::wstring name = L"caf\u00e9.json";

    platform::replaceFileContent(file, "old");
    expect(folder.content(name) == "old", "writes a file that was not there");
    platform::replaceFileContent(folder.path() + "/caf\xc3\xa9.json", "new\r\n");
    expect(folder.content(name) == "new\r\n", "replaces it, byte for byte, by either separator");
    expect(folder.names().size() == 1, "leaves no neighbour behind");

    expect(throwsSystemError([&] { platform::replaceFileContent(folder.path(), "x"); }),
           "refuses a folder's place");
    expect(throwsSystemError([&] { platform::replaceFileContent(file + "\\no\\where", "x"); }),
           "refuses a folder that is not there");
    expect(throwsSystemError([&] { platform::replaceFileContent(file + "\xff", "x"); }),
           "refuses a name that is no UTF-8");
    expect(
        throwsSystemError([&] { platform::createPrivateDirectory(folder.path() + "\\no\\where"); }),
        "creates no folder without its parent");
    expect(folder.content(name) == "new\r\n" && folder.names().size() == 1,
           "leaves everything as it was then");
}

// As a virus scanner does: opened without letting others delete, closed soon.
void waitsForAReader() {
    const Folder folder;
    platform::createPrivateDirectory(folder.path());
    const std::string file = folder.path() + "\\held.json";
    platform::replaceFileContent(file, "old");
    const HANDLE reader = folder.open(L"held.json", FILE_SHARE_READ);
    expect(throwsSystemError([&] { platform::replaceFileContent(file, "new"); }),
           "gives up on a file that stays open");
    expect(folder.content(L"held.json") == "old" && folder.names().size() == 1,
           "which is as it was");
    std::thread closer([&] { ::CloseHandle(reader); });
    platform::replaceFileContent(file, "new");
    closer.join();
    expect(folder.content(L"held.json") == "new", "replaces it once it is closed");
}

void knowsItsExecutable() {
    const std::string path = platform::executablePath();
    expect(::GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES, path + " is there");
    expect(ownName() == "PlatformWindowsTest.exe", "and has its name");
    expect(platform::pluginSuffixes() == std::vector<std::string>{".dll"}, "plug-ins end in .dll");
    expect(!platform::canJoinAtExit(), "joins nothing under the loader lock");
}

}  // namespace

int main(int argc, char** argv) {
    const std::string argument = argc > 1 ? argv[1] : "";
    if (argument == kChildArgument) {
        ::Sleep(kAtMostMilliseconds);
        return 0;
    }
    if (argument == kConsoleArgument) {
        switchesTheModeOfAConsole();
        return failures;
    }
    knowsItsExecutable();
    findsProcessesByExactName();
    killsAChildByTheCommand();
    leavesOutputWithoutConsoleAlone();
    replacesFilesInOneStep();
    waitsForAReader();
    std::cout << failures << " failures" << std::endl;
    return failures == 0 ? 0 : 1;
}
