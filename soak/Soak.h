#pragma once

// The soak driver's cases. Each runs in a process of its own, prints one row of a Markdown table
// and succeeds or not; see Soak.cpp.

#include <functional>
#include <string>
#include <vector>

namespace soak {

struct Result {
    bool right = true;
    std::string what;  // figures and events, for the row
};

struct Case {
    std::string group, name;
    /// @param scale  of the full count: 1, or less for the short form.
    std::function<Result(double scale)> run;
    int limit = 600;  // s, after which it counts as hanging
};

std::vector<Case> loadCases();
std::vector<Case> faultCases();
std::vector<Case> exitCases();

/// The work of a child process that saves a configuration again and again, until it is killed.
[[noreturn]] void saveForEver();

/// Heap in use, threads and descriptors, of this process.
struct Footprint {
    static Footprint now();
    long heap = 0, resident = 0;  // KiB
    int threads = 0, descriptors = 0;
};

/// Memory at the end of the first tenth of a job beside that at its end, and what else is left.
class Watch {
public:
    explicit Watch(long total);

    /// Call it now and then; at each tenth of the total it looks.
    void at(long done);

    /// Waits until threads and descriptors are back to where they began.
    /// @param extraThreads  which the library keeps on purpose, such as those of a pool.
    void end(Result& result, int extraThreads);

private:
    const long _total;
    const Footprint _begin = Footprint::now();
    Footprint _firstTenth;
};

std::string rate(long count, double seconds, const char* unit);

/// Runs this program with arguments, and waits. @return the exit code, 128 + the signal, or -1
/// where it took longer than `limit` seconds and was killed.
int runChild(const std::vector<std::string>& words, int limit);

}  // namespace soak
