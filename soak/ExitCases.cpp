#include <Poco/JSON/Parser.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <thread>

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

// All states; one process each. The longest time is told, as is every end that is not as expected.
Result endBy(const std::string& way) {
    Broker broker;
    Result result;
    double longest = 0;
    std::string slowest, wrong;
    ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
    for (const auto& state : kStates) {
        const auto begin = std::chrono::steady_clock::now();
        const int code = runChild({SOAK_ENDING_HOST, SOAK_STATES, state, way,
                                   "127.0.0.1:" + std::to_string(broker.port())},
                                  kBound);
        const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
        if (taken.count() > longest) {
            longest = taken.count();
            slowest = state;
        }
        if (code != 0) wrong += ", " + state + ": " + (code < 0 ? "hung" : std::to_string(code));
    }
    result.right = wrong.empty();
    result.what = std::to_string(kStates.size()) + " states, exit code 0 expected" + wrong +
                  "; longest " + std::to_string(longest).substr(0, 4) + " s (" + slowest + ")";
    return result;
}

std::string contentOf(const fs::path& file) {
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
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

Result killWhileSaving(double scale) {
    const int total = std::max(20, static_cast<int>(1000 * scale));
    std::mt19937 random(1);
    int complete = 0, begun = 0;
    std::set<std::string> left;
    const fs::path folder = fs::path(::getenv("XDG_CONFIG_HOME")) / "kelhost";
    const fs::path file = folder / (fs::read_symlink("/proc/self/exe").stem().string() + ".json");
    for (int i = 0; i < total; ++i) {
        char program[] = "/proc/self/exe", option[] = "--save";
        char* words[] = {program, option, nullptr};
        const std::string before = contentOf(file);
        pid_t pid = -1;
        ::posix_spawn(&pid, program, nullptr, nullptr, words, environ);
        while (contentOf(file) == before) std::this_thread::yield();  // it has begun to save
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        ++begun;
        if (isComplete(contentOf(file))) ++complete;
        for (const auto& entry : fs::directory_iterator(folder)) {
            if (entry.path() != file) left.insert(entry.path().filename().string());
        }
    }
    kel::loadConfig();
    kel::saveConfig();
    std::string remains;
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (entry.path() != file) remains += " " + entry.path().filename().string();
    }
    return {complete == total && remains.empty(),
            std::to_string(complete) + " complete files after " + std::to_string(begun) +
                " kills; " + std::to_string(left.size()) +
                " names were seen beside the file, after the next save:" +
                (remains.empty() ? " none" : remains)};
}

}  // namespace

void saveForEver() {
    for (unsigned generation = std::random_device()();; ++generation) {
        for (int i = 0; i < 200; ++i) {
            kel::configInstance().setString("soak.key" + std::to_string(i),
                                            std::to_string(generation));
        }
        if (kel::configPath().empty()) kel::loadConfig();  // the first file is complete too
        kel::saveConfig();
    }
}

std::vector<Case> exitCases() {
    std::vector<Case> all = {{"exit", "kill -9 during saveConfig", killWhileSaving}};
    for (const char* way : {"return", "exit", "SIGTERM", "fork", "dlclose"}) {
        all.push_back({"exit", std::string("end by ") + way, [way](double) { return endBy(way); }});
    }
    return all;
}

}  // namespace soak
