// Soak             lists the cases: group, name, limit in seconds and environment, tabs in between.
// Soak NAME SCALE  runs one and prints its row. The exit code tells whether it came out right.

#include "Soak.h"

#include <Poco/Environment.h>
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "Await.h"

namespace soak {

namespace {

int entries(const char* folder) {
    const std::filesystem::directory_iterator all(folder);
    return static_cast<int>(std::distance(begin(all), end(all)));
}

std::vector<Case> allCases() {
    std::vector<Case> all = loadCases();
    for (const auto& more : {faultCases(), shortageCases()})
        all.insert(all.end(), more.begin(), more.end());
    return all;
}

Result resultOf(const Case& one, double scale) {
    try {
        return one.run(scale);
    } catch (const std::exception& exc) {
        return {false, std::string("exception: ") + exc.what()};
    }
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
    // What grows with the count shows after the first tenth; an allocator may keep some more.
    const bool flat = last.resident <= _firstTenth.resident + _firstTenth.resident / 5 + 4096;
    std::ostringstream out;
    out << _total << ' ' << unit << " in " << std::lround(taken.count()) << " s, " << more
        << "; resident " << _firstTenth.resident << " to " << last.resident << " KiB, in use "
        << _firstTenth.heap << " to " << last.heap << " KiB; threads " << _begin.threads << " to "
        << left.threads << ", descriptors " << _begin.descriptors << " to " << left.descriptors;
    return {right && back && flat, out.str()};
}

std::string contentOf(const std::string& file) {
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::string homeFolder() {
    return Poco::Environment::get("XDG_DATA_HOME") + "/kelhost";
}

void silenceConsole() {
    ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
}

}  // namespace soak

int main(int argc, char** argv) {
    for (const soak::Case& one : soak::allCases()) {
        if (argc != 3) {
            std::cout << one.group << '\t' << one.name << '\t' << one.limit << '\t'
                      << one.environment << '\n';
        } else if (one.name == argv[1]) {
            const soak::Result result = soak::resultOf(one, std::stod(argv[2]));
            std::cout << "| " << one.group << " | " << one.name << " | " << result.what << " | "
                      << result.verdict << " |" << std::endl;
            return result.verdict == "**WRONG**" ? EXIT_FAILURE : EXIT_SUCCESS;
        }
    }
    return argc == 3 ? EXIT_FAILURE : EXIT_SUCCESS;
}
