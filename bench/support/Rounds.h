#pragma once

// What every benchmark shares: a job of ours and its rivals take turns for some rounds, and a
// Markdown row for each rival tells medians, spread and the ratio of the medians beside the mark
// that it is to reach. A job checks its own result and throws where it is wrong, so that no figure
// is printed for work that was not done.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

/// Runs a job once. @return a figure for each name that the contest has. Throws on a wrong result.
using Job = std::function<std::vector<double>()>;

enum class Better { kHigher, kLower };

struct Rival {
    std::string name;
    Job job;
    double mark;  // what our median over the rival's should reach; 0 for none
};

/// Throws unless `right`.
inline void check(bool right, const std::string& what) {
    if (!right) throw std::runtime_error(what);
}

/// The element at `part` (0 to 1) of the sorted values: 0.5 is the median.
inline double quantile(std::vector<double> values, double part) {
    check(!values.empty(), "no values");
    const auto index =
        static_cast<std::size_t>(part * static_cast<double>(values.size() - 1) + 0.5);
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(index),
                     values.end());
    return values[index];
}

class Rounds {
public:
    /// @param rounds  how often each job runs; five at least.
    /// @param only    runs the contests alone whose title contains it; empty for all.
    explicit Rounds(int rounds = 5, std::string only = "")
        : _rounds(std::max(rounds, 5)), _only(std::move(only)) {}

    /// Begins a table. Its notes stand below the heading.
    void table(const std::string& heading, const std::string& notes) const {
        std::cout << "\n### " << heading << "\n\n"
                  << notes << " " << _rounds
                  << " rounds; medians, in brackets the lowest and the highest round.\n\n"
                  << "| job | KelCommon | beside | | ratio | mark |\n|---|---|---|---|---|---|\n"
                  << std::flush;
    }

    /// Runs `ours` and its rivals in turn and prints a row for each figure and rival.
    /// @param figures  what each value of a job's result is, with its unit: "messages/s".
    void contest(const std::string& title, const std::vector<std::string>& figures, const Job& ours,
                 const std::vector<Rival>& rivals, Better better = Better::kHigher) const {
        if (title.find(_only) == title.npos) return;
        std::vector<Samples> samples(rivals.size() + 1, Samples(figures.size()));
        for (int round = 0; round < _rounds; ++round) {
            std::cerr << title << ": round " << round + 1 << " of " << _rounds << "\n";
            add(samples[0], ours());
            for (std::size_t i = 0; i < rivals.size(); ++i) add(samples[i + 1], rivals[i].job());
        }
        for (std::size_t figure = 0; figure < figures.size(); ++figure) {
            for (std::size_t i = 0; i < rivals.size(); ++i) {
                printRow(title + ", " + figures[figure], samples[0][figure], rivals[i],
                         samples[i + 1][figure], better);
            }
        }
    }

private:
    using Samples = std::vector<std::vector<double>>;  // by figure, then by round

    static void add(Samples& samples, const std::vector<double>& figures) {
        check(figures.size() == samples.size(), "a job has not told all of its figures");
        for (std::size_t i = 0; i < figures.size(); ++i) samples[i].push_back(figures[i]);
    }

    static std::string formatted(const char* format, double value) {
        char text[64];
        std::snprintf(text, sizeof text, format, value);
        return text;
    }

    static std::string number(double value) {
        return formatted(value >= 100 ? "%.0f" : value >= 10 ? "%.1f" : "%.2f", value);
    }

    static std::string summary(const std::vector<double>& values) {
        return number(quantile(values, 0.5)) + " (" + number(quantile(values, 0)) + " to " +
               number(quantile(values, 1)) + ")";
    }

    static std::string markText(double ratio, double mark, Better better) {
        if (mark == 0) return "";
        const bool reached = better == Better::kHigher ? ratio >= mark : ratio <= mark;
        return (better == Better::kHigher ? "at least " : "at most ") + formatted("%g", mark) +
               (reached ? "" : ": missed");
    }

    static void printRow(const std::string& title, const std::vector<double>& ours,
                         const Rival& rival, const std::vector<double>& theirs, Better better) {
        const double ratio = quantile(ours, 0.5) / quantile(theirs, 0.5);
        std::cout << "| " << title << " | " << summary(ours) << " | " << rival.name << " | "
                  << summary(theirs) << " | " << number(ratio) << " | "
                  << markText(ratio, rival.mark, better) << " |\n"
                  << std::flush;
    }

    const int _rounds;
    const std::string _only;
};

/// The main function of a benchmark: `program [rounds] [text in the title of the contests to run]`.
inline int run(int argc, char** argv, const std::function<void(const Rounds&)>& contests) {
    try {
        const int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
        contests(Rounds(rounds, argc > 2 ? argv[2] : ""));
        return EXIT_SUCCESS;
    } catch (const std::exception& exc) {
        std::cerr << argv[0] << ": " << exc.what() << "\n";
        return EXIT_FAILURE;
    }
}

}  // namespace bench
