// Library.cpp - the one place where the process's end meets the library's threads.
//
// Everything process-wide in the library is created on first use and never destroyed, so that the
// order of static destructors does not matter. The only static object with a destructor of its own
// is the one below; it stops the threads, stage by stage.

#include "Library.h"

#include <Poco/NotificationCenter.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <vector>

#include "internal/log/UnitLog.h"
#include "internal/platform/Platform.h"
#include "internal/process/LibraryStop.h"
#include "internal/process/NeverDestroyed.h"

namespace kel {

namespace {

std::atomic<bool> ending{false};

struct Hooks {
    std::mutex mutex;
    // Guarded by mutex.
    std::map<StopStage, std::vector<void (*)()>> byStage;
    unsigned long process = platform::currentProcessId();  // whose threads these stop
};

Hooks& hooks() {
    static NeverDestroyed<Hooks> instance;
    return *instance;
}

// Takes the hooks of the earliest stage out; empty when none is left.
std::vector<void (*)()> takeNextStage() {
    Hooks& all = hooks();
    const std::lock_guard<std::mutex> lock(all.mutex);
    if (all.byStage.empty()) return {};
    return std::move(all.byStage.extract(all.byStage.begin()).mapped());
}

struct AtProcessEnd {
    // From 1.13 on POCO makes its center on first use; handlers may post until it is our turn.
    AtProcessEnd() { Poco::NotificationCenter::defaultCenter(); }

    // A forked child has only the threads that it has started itself; waiting for others would not
    // end.
    ~AtProcessEnd() {
        if (platform::currentProcessId() != hooks().process) return;
        ending = true;
        if (platform::canJoinAtExit()) stopLibrary();
        endLogging();
    }
} atProcessEnd;

}  // namespace

void onLibraryStop(StopStage stage, void (*stop)()) {
    Hooks& all = hooks();
    const std::lock_guard<std::mutex> lock(all.mutex);
    if (const auto process = platform::currentProcessId(); process != all.process) {
        all.byStage.clear();
        all.process = process;
    }
    auto& registered = all.byStage[stage];
    if (std::find(registered.begin(), registered.end(), stop) == registered.end()) {
        registered.push_back(stop);
    }
}

bool processIsEnding() noexcept {
    return ending;
}

void stopLibrary() noexcept {
    for (auto stage = takeNextStage(); !stage.empty(); stage = takeNextStage()) {
        for (auto* stop : stage) {
            try {
                stop();
            } catch (...) {
                // The next unit still has to be stopped.
            }
        }
    }
}

}  // namespace kel
