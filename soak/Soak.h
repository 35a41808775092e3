#pragma once

// The soak driver's cases. Each runs in a process of its own, with home folders of its own, and is
// one row of the table that scripts/soak prints.

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace soak {

struct Result {
    Result(bool right, std::string text)
        : verdict(right ? "as it should be" : "**WRONG**"), what(std::move(text)) {}

    /// A case that this machine cannot show, and why.
    static Result leftOut(const std::string& why) {
        Result result(true, why);
        result.verdict = "left out";
        return result;
    }

    std::string verdict, what;
};

struct Case {
    std::string group, name;
    /// @param scale  of the full count: 1, or less for the short form.
    std::function<Result(double scale)> run;
    int limit = 120;               // s, after which it counts as hanging
    std::string environment = "";  // further variables, as env takes them
};

std::vector<Case> loadCases();
std::vector<Case> faultCases();
std::vector<Case> shortageCases();

/// Memory, threads and descriptors of this process.
struct Footprint {
    static Footprint now();
    long heap = 0, resident = 0;  // KiB
    int threads = 0, descriptors = 0;
};

/// Memory at the end of the first tenth of a job beside that at its end, and what else is left.
class Watch {
public:
    explicit Watch(long total) : _total(total) {}

    /// Call it now and then, from any thread; it looks once a tenth of the total is done.
    void at(long done);

    /// Waits until threads and descriptors are back to where they began.
    /// @param unit          of what was counted, for the row.
    /// @param extraThreads  which the library keeps on purpose, such as those of a pool.
    Result end(bool right, const std::string& unit, const std::string& more, int extraThreads = 0);

private:
    const long _total;
    const std::chrono::steady_clock::time_point _start = std::chrono::steady_clock::now();
    const Footprint _begin = Footprint::now();
    std::once_flag _looked;
    Footprint _firstTenth;
};

/// What is in a file; "" where there is none.
std::string contentOf(const std::string& file);

/// Where the library writes log files and configuration.
std::string homeFolder();

/// From now on nothing that this process writes to its console is seen.
void silenceConsole();

}  // namespace soak
