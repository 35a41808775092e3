// Usage: RunHost PROGRAM [ARGUMENT...]   runs the program until a line comes from standard input,
// asks it then to end as Poco::Process::requestTermination() does, and ends with its exit code.
// Arguments must need no quotes.

#include <windows.h>

#include <array>
#include <cstdio>
#include <iostream>
#include <string>
#include <thread>

namespace {

constexpr DWORD kPatience = 60000;  // milliseconds

bool requestEnd(DWORD pid) {
    std::array<char, 16> name{};
    std::snprintf(name.data(), name.size(), "POCOTRM%08lX", pid);
    const HANDLE event = ::OpenEventA(EVENT_MODIFY_STATE, FALSE, name.data());
    return event && ::SetEvent(event) && ::CloseHandle(event);
}

[[noreturn]] void endAs(HANDLE program) {
    DWORD code = 255;
    ::GetExitCodeProcess(program, &code);
    ::ExitProcess(code);
}

}  // namespace

int main(int argc, char** argv) {
    std::string command;
    for (int i = 1; i < argc; ++i) command += (i > 1 ? " " : "") + std::string(argv[i]);
    STARTUPINFOA startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION program{};
    if (!::CreateProcessA(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                          &startup, &program)) {
        std::cerr << "RunHost: cannot start " << command << std::endl;
        return 255;
    }
    // One that ends by itself is not kept waiting for a line.
    std::thread([handle = program.hProcess] {
        ::WaitForSingleObject(handle, INFINITE);
        endAs(handle);
    }).detach();
    std::string line;
    std::getline(std::cin, line);
    const bool asked = requestEnd(program.dwProcessId);
    if (!asked || ::WaitForSingleObject(program.hProcess, kPatience) != WAIT_OBJECT_0) {
        ::TerminateProcess(program.hProcess, 255);
    }
    endAs(program.hProcess);
}
