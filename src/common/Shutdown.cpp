// Shutdown.cpp - the one place where the process's end meets the library's threads.
//
// Everything process-wide in the library is created on first use and never destroyed, so that the
// order of static destructors does not matter. The only static object with a destructor of its own
// is the one below; it stops the threads, stage by stage.

#include "Shutdown.h"

#include <Poco/NotificationCenter.h>

#include <map>
#include <mutex>
#include <vector>

#include "internal/ExitHooks.h"
#include "internal/Log.h"
#include "internal/Platform.h"

namespace kel {

namespace {

struct Hooks {
    std::mutex mutex;
    std::map<ExitStage, std::vector<void (*)()>> byStage;
};

Hooks& hooks() {
    static auto* instance = new Hooks;
    return *instance;
}

// Takes the hooks of the earliest stage out; empty when none is left.
std::vector<void (*)()> takeNextStage() {
    Hooks& all = hooks();
    std::lock_guard<std::mutex> lock(all.mutex);
    if (all.byStage.empty()) return {};
    return std::move(all.byStage.extract(all.byStage.begin()).mapped());
}

struct AtProcessEnd {
    // From 1.13 on POCO makes its center on first use; handlers may post until it is our turn.
    AtProcessEnd() { Poco::NotificationCenter::defaultCenter(); }

    ~AtProcessEnd() {
        if (platform::canJoinAtExit()) stopLibrary();
        endLogging();
    }
} atProcessEnd;

}  // namespace

void onLibraryStop(ExitStage stage, void (*stop)()) {
    Hooks& all = hooks();
    std::lock_guard<std::mutex> lock(all.mutex);
    all.byStage[stage].push_back(stop);
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
