// Library.cpp - the one place where the process's end meets the library's threads.
//
// Everything process-wide in the library is created on first use and never destroyed, so that the
// order of static destructors does not matter. The only static object with a destructor of its own
// is `atProcessEnd`; it stops the threads, stage by stage.
//
//   state                        who may touch it    lock
//   registered stop functions    any thread          Hooks::mutex, not held while one runs
//   a stop of the library        one at a time       `oneAtATime`, held until all have stopped

#include "Library.h"

#include <Poco/NotificationCenter.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "Version.h"
#include "internal/log/UnitLog.h"
#include "internal/platform/Platform.h"
#include "internal/process/LibraryStop.h"
#include "internal/process/NeverDestroyed.h"

#define KEL_TEXT_OF(number) #number
#define KEL_DOTTED(major, minor, patch) \
    KEL_TEXT_OF(major) "." KEL_TEXT_OF(minor) "." KEL_TEXT_OF(patch)

namespace kel {

namespace {

constexpr std::chrono::milliseconds kLastLines(2000);

std::atomic<bool> ending{false};

struct Hooks {
    std::atomic<unsigned long> process{0};  // id of the one whose threads they stop
    std::mutex mutex;
    std::map<StopStage, std::vector<void (*)()>> byStage;  // guarded by mutex
};

Hooks& hooks() {
    static NeverDestroyed<Hooks> instance;
    return *instance;
}

// A forked child has none of its parent's threads, and a wait for them would not end. It may have
// started threads of its own.
bool areOfThisProcess(const Hooks& all) {
    return all.process == platform::currentProcessId();
}

using StopFunctions = std::vector<void (*)()>;

// Removes and returns the stop functions of the first stage that has any, beginning with `stage`,
// which becomes that one; empty if no stage has any. They are removed because a unit that starts
// anew registers again.
std::optional<StopFunctions> takeFrom(StopStage& stage) {
    Hooks& all = hooks();
    const std::lock_guard<std::mutex> lock(all.mutex);
    const auto found = all.byStage.lower_bound(stage);
    if (found == all.byStage.end()) return {};
    stage = found->first;
    return all.byStage.extract(found).mapped();
}

void run(const StopFunctions& stopFunctions) {
    for (auto* stop : stopFunctions) {
        try {
            stop();
        } catch (...) {
            // The next unit still has to be stopped.
        }
    }
}

struct AtProcessEnd {
    // From 1.13 on POCO makes its center on first use. Made before this object, it is destroyed
    // after it, so handlers may post until the library has stopped.
    AtProcessEnd() { Poco::NotificationCenter::defaultCenter(); }

    ~AtProcessEnd() {
        ending = true;
        if (platform::canJoinAtExit()) stopLibrary();
        stopLogging(areOfThisProcess(hooks()) ? kLastLines : std::chrono::milliseconds(0));
    }
} atProcessEnd;

}  // namespace

void onLibraryStop(StopStage stage, void (*stop)()) {
    Hooks& all = hooks();
    const std::lock_guard<std::mutex> lock(all.mutex);
    if (!areOfThisProcess(all)) all.byStage.clear();
    all.process = platform::currentProcessId();
    auto& registered = all.byStage[stage];
    if (std::find(registered.begin(), registered.end(), stop) == registered.end()) {
        registered.push_back(stop);
    }
}

bool processIsEnding() noexcept {
    return ending;
}

const char* version() noexcept {
    return KEL_DOTTED(KEL_VERSION_MAJOR, KEL_VERSION_MINOR, KEL_VERSION_PATCH);
}

void stopLibrary() noexcept {
    if (!areOfThisProcess(hooks())) return;
    // One at a time, so that a second call cannot stop the logging while the first still stops what
    // logs. Recursive, since work that is waited for may itself call exit().
    static NeverDestroyed<std::recursive_mutex> oneAtATime;
    const std::lock_guard<std::recursive_mutex> lock(*oneAtATime);
    // A unit that another thread has started anew meanwhile is stopped too, but not for ever.
    constexpr int kRounds = 3;
    for (int round = 0; round < kRounds; ++round) {
        auto stage = StopStage::kMessaging;
        while (const auto stopFunctions = takeFrom(stage)) run(*stopFunctions);
    }
}

}  // namespace kel
