// The end of a process: in the middle of a save, and in every state by every way.

#include <Poco/Environment.h>
#include <Poco/JSON/Parser.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <random>
#include <set>
#include <sstream>

#include "Broker.h"
#include "Soak.h"
#include "common/Config.h"

namespace soak {

namespace {

namespace fs = std::filesystem;

constexpr int kBound = 30;  // s, far above the 10 s that each stage of the stop may take

const std::vector<std::string> kStates = {"not connected",      "connecting to a black hole",
                                          "under traffic",      "waiting for the broker",
                                          "requests in flight", "timer running",
                                          "tasks running",      "logging flooded"};

struct End {
    int code;
    double seconds;
};

// With KEL_VALGRIND, which gives its options, in valgrind.
End endOf(const std::string& state, const std::string& way, const std::string& broker) {
    std::vector<std::string> words;
    std::istringstream options(Poco::Environment::get("KEL_VALGRIND", ""));
    for (std::string option; options >> option;) words.push_back(option);
    const int bound = words.empty() ? kBound : 10 * kBound;
    words.insert(words.end(), {SOAK_ENDING_HOST, SOAK_STATES, state, way, broker});
    const auto begin = std::chrono::steady_clock::now();
    const int code = runChild(words, bound);
    return {code, std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count()};
}

// All states at a time, one process each.
Result endBy(const std::string& way) {
    Broker broker;
    const std::string address = "127.0.0.1:" + std::to_string(broker.port());
    silenceConsole();
    std::vector<std::future<End>> ends;
    for (const auto& state : kStates)
        ends.push_back(std::async(std::launch::async, endOf, state, way, address));
    End longest{0, 0};
    std::string slowest, wrong;
    for (std::size_t i = 0; i < ends.size(); ++i) {
        const End end = ends[i].get();
        if (end.seconds > longest.seconds) {
            longest = end;
            slowest = kStates[i];
        }
        if (end.code != 0)
            wrong += ", " + kStates[i] + ": " + (end.code < 0 ? "hung" : std::to_string(end.code));
    }
    return {wrong.empty(), std::to_string(ends.size()) + " states, exit code 0 expected" + wrong +
                               "; longest " + std::to_string(longest.seconds).substr(0, 4) +
                               " s (" + slowest + ")"};
}

// Every value of a complete file is of the same generation.
bool isComplete(const std::string& text) {
    try {
        const auto root = Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>();
        const auto values = root->getObject("soak");
        std::set<std::string> generations;
        for (const auto& name : values->getNames())
            generations.insert(values->getValue<std::string>(name));
        return values->size() == 200 && generations.size() == 1;
    } catch (const Poco::Exception&) {
        return false;
    }
}

// Ends a process that saves, at a random moment after it has begun to.
void killOneThatSaves(const std::string& file, std::mt19937& random) {
    char program[] = "/proc/self/exe", option[] = "--save";
    char* words[] = {program, option, nullptr};
    const std::string before = contentOf(file);
    pid_t pid = -1;
    ::posix_spawn(&pid, program, nullptr, nullptr, words, environ);
    while (contentOf(file) == before) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

// What is in the folder of `file` besides it.
std::set<std::string> beside(const fs::path& file) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(file.parent_path()))
        if (entry.path() != file) names.insert(entry.path().filename());
    return names;
}

Result killWhileSaving(double scale) {
    const int total = std::max(20, static_cast<int>(1000 * scale));
    std::mt19937 random(1);
    const std::string name = fs::read_symlink("/proc/self/exe").stem().string() + ".json";
    const fs::path file = fs::path(::getenv("XDG_CONFIG_HOME")) / "kelhost" / name;
    int complete = 0;
    std::size_t most = 0;
    for (int i = 0; i < total; ++i) {
        killOneThatSaves(file, random);
        complete += isComplete(contentOf(file));
        most = std::max(most, beside(file).size());
    }
    kel::loadConfig();
    kel::saveConfig();
    const std::size_t left = beside(file).size();
    return {complete == total && left == 0,
            std::to_string(complete) + " complete files after " + std::to_string(total) +
                " kills; at most " + std::to_string(most) +
                " unfinished ones beside it, after the next save " + std::to_string(left)};
}

}  // namespace

void saveForEver() {
    for (unsigned generation = std::random_device()();; ++generation) {
        for (int i = 0; i < 200; ++i)
            kel::configInstance().setString("soak.key" + std::to_string(i),
                                            std::to_string(generation));
        if (kel::configPath().empty()) kel::loadConfig();  // the first file is complete too
        kel::saveConfig();
    }
}

std::vector<Case> exitCases() {
    std::vector<Case> all = {{"exit", "kill -9 during saveConfig", killWhileSaving, 300}};
    for (const char* way : {"release", "return", "exit", "SIGTERM", "fork", "dlclose"}) {
        all.push_back({"exit", std::string("end by ") + way, [way](double) { return endBy(way); },
                       20 * kBound});
    }
    return all;
}

}  // namespace soak
