// Soak [--scale X] [TEXT]   runs the cases "group: name" that contain TEXT, each in a process of
// its own, and prints a Markdown table. The exit code tells whether all came out right.

#include "Soak.h"

#include <Poco/Environment.h>
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "Await.h"
#include "Sandbox.h"

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
    long size = 0;
    std::ifstream("/proc/self/statm") >> size >> found.resident;
    found.resident *= ::sysconf(_SC_PAGESIZE) / 1024;
    found.threads = entries("/proc/self/task");
    found.descriptors = entries("/proc/self/fd");
    return found;
}

void Watch::at(long done) {
    if (done >= _total / 10) std::call_once(_looked, [&] { _firstTenth = Footprint::now(); });
}

Result Watch::end(bool right, const std::string& unit, const std::string& more, int extraThreads) {
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - _start;
    const Footprint last = Footprint::now();
    Footprint left;
    const bool back = await([&] {
        left = Footprint::now();
        return left.threads <= _begin.threads + extraThreads &&
               left.descriptors <= _begin.descriptors;
    });
    // What one in ten costs is known after the first tenth; the rest may add what an allocator
    // keeps.
    const bool flat = last.resident <= _firstTenth.resident + _firstTenth.resident / 5 + 4096;
    std::ostringstream out;
    out << _total << ' ' << unit << " in " << static_cast<long>(taken.count() + 0.5) << " s, "
        << more << "; resident " << _firstTenth.resident << " to " << last.resident
        << " KiB, in use " << _firstTenth.heap << " to " << last.heap << " KiB; threads "
        << _begin.threads << " to " << left.threads << ", descriptors " << _begin.descriptors
        << " to " << left.descriptors;
    return {right && back && flat, out.str()};
}

std::string contentOf(const std::string& file) {
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
}

void silenceConsole() {
    ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
}

int runChild(std::vector<std::string> words, int limit) {
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (::posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return 127;
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
using soak::Result;

std::vector<Case> allCases() {
    std::vector<Case> all = soak::loadCases();
    for (const auto& more : {soak::faultCases(), soak::shortageCases(), soak::exitCases()})
        all.insert(all.end(), more.begin(), more.end());
    return all;
}

void printRow(const Case& one, const Result& result) {
    constexpr const char* kVerdicts[] = {"**WRONG**", "as it should be", "left out"};
    std::cout << "| " << one.group << " | " << one.name << " | " << result.what << " | "
              << kVerdicts[static_cast<int>(result.verdict)] << " |" << std::endl;
}

// In the child. Where it does not come to its row, the parent prints one.
int runOne(const std::string& name, double scale) {
    const TempFolder home;
    for (const char* variable : {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME"})
        Poco::Environment::set(variable, home.path.string());
    for (const Case& one : allCases()) {
        if (one.name != name) continue;
        Result result(false, "");
        try {
            result = one.run(scale);
        } catch (const std::exception& exc) {
            result.what = std::string("exception: ") + exc.what();
        }
        printRow(one, result);
        return result.verdict == Result::Verdict::kWrong ? EXIT_FAILURE : EXIT_SUCCESS;
    }
    return EXIT_FAILURE;
}

bool runAll(const std::string& text, const std::string& scale) {
    std::cout << "| group | case | what happened | result |\n|---|---|---|---|" << std::endl;
    bool right = true;
    for (const Case& one : allCases()) {
        if ((one.group + ": " + one.name).find(text) == std::string::npos) continue;
        std::vector<std::string> words = one.around;
        const std::string self = std::filesystem::read_symlink("/proc/self/exe");
        words.insert(words.end(), {self, "--one", one.name, scale});
        const int code = soak::runChild(words, one.limit);
        right = right && code == EXIT_SUCCESS;
        if (code < 0)
            printRow(one, {false, "has not ended after some " + std::to_string(one.limit) + " s"});
        if (code > EXIT_FAILURE) printRow(one, {false, "exit code " + std::to_string(code)});
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
