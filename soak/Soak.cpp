// Soak [--scale X] [TEXT]   runs the cases whose group and name contain TEXT, each in a process of
// its own, and prints a Markdown table. The exit code tells whether all came out right.

#include <Poco/Environment.h>
#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "Await.h"
#include "Sandbox.h"
#include "Soak.h"

namespace soak {

namespace {

int entries(const char* folder) {
    const std::filesystem::directory_iterator all(folder);
    return static_cast<int>(std::distance(begin(all), end(all)));
}

}  // namespace

Footprint Footprint::now() {
    ::malloc_trim(0);
    Footprint found;
    found.heap = static_cast<long>(::mallinfo2().uordblks / 1024);
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> found.resident;
    found.resident *= ::sysconf(_SC_PAGESIZE) / 1024;
    found.threads = entries("/proc/self/task");
    found.descriptors = entries("/proc/self/fd");
    return found;
}

Watch::Watch(long total) : _total(total) {}

void Watch::at(long done) {
    if (_firstTenth.threads == 0 && done >= _total / 10) _firstTenth = Footprint::now();
}

void Watch::end(Result& result, int extraThreads) {
    const Footprint last = Footprint::now();
    Footprint left;
    const bool back = await([&] {
        left = Footprint::now();
        return left.threads <= _begin.threads + extraThreads &&
               left.descriptors <= _begin.descriptors;
    });
    // A tenth of the count leaves nothing that the rest may add to, beyond what an allocator keeps.
    const bool flat = last.resident <= _firstTenth.resident + _firstTenth.resident / 5 + 4096;
    std::ostringstream out;
    out << result.what << "; resident " << _firstTenth.resident << " to " << last.resident
        << " KiB, in use " << _firstTenth.heap << " to " << last.heap << " KiB; threads "
        << _begin.threads << " to " << left.threads << ", descriptors " << _begin.descriptors
        << " to " << left.descriptors;
    result.what = out.str();
    result.right = result.right && back && flat;
}

std::string rate(long count, double seconds, const char* unit) {
    std::ostringstream out;
    out << count << ' ' << unit << " in " << static_cast<long>(seconds + 0.5) << " s";
    return out.str();
}

int runChild(const std::vector<std::string>& words, int limit) {
    std::vector<char*> argv;
    for (const auto& word : words) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return 127;
    int status = 0;
    const auto ended = [&] { return ::waitpid(pid, &status, WNOHANG) == pid; };
    if (!await(ended, std::chrono::seconds(limit))) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        return -1;
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace soak

namespace {

using soak::Case;

std::vector<Case> allCases() {
    std::vector<Case> all = soak::loadCases();
    for (auto more : {soak::faultCases(), soak::exitCases()}) {
        all.insert(all.end(), more.begin(), more.end());
    }
    return all;
}

// In the child. What the library writes to the console is dropped, or kept for who looks for it.
int runOne(const std::string& name, double scale) {
    const TempFolder home;
    for (const char* variable : {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME"}) {
        Poco::Environment::set(variable, home.path.string());
    }
    for (const Case& one : allCases()) {
        if (one.name != name) continue;
        soak::Result result;
        try {
            result = one.run(scale);
        } catch (const std::exception& exc) {
            result = {false, std::string("exception: ") + exc.what()};
        }
        std::cout << "| " << one.group << " | " << name << " | " << result.what << " | "
                  << (result.right ? "as it should be" : "**WRONG**") << " |" << std::endl;
        return result.right ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    return EXIT_FAILURE;
}

bool runAll(const std::string& text, const std::string& scale) {
    std::cout << "| group | case | what happened | result |\n|---|---|---|---|" << std::endl;
    bool right = true;
    for (const Case& one : allCases()) {
        if ((one.group + ": " + one.name).find(text) == text.npos) continue;
        const int code = soak::runChild({"/proc/self/exe", "--one", one.name, scale}, one.limit);
        if (code != EXIT_SUCCESS) right = false;
        if (code != EXIT_SUCCESS && code != EXIT_FAILURE) {
            std::cout << "| " << one.group << " | " << one.name << " | "
                      << (code < 0 ? "it hung" : "exit code " + std::to_string(code))
                      << " | **WRONG** |" << std::endl;
        }
    }
    return right;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() == 1 && words[0] == "--save") soak::saveForEver();
    if (words.size() == 3 && words[0] == "--one") return runOne(words[1], std::stod(words[2]));
    std::string scale = "1";
    if (words.size() >= 2 && words[0] == "--scale") {
        scale = words[1];
        words.erase(words.begin(), words.begin() + 2);
    }
    return runAll(words.empty() ? "" : words[0], scale) ? EXIT_SUCCESS : EXIT_FAILURE;
}
