#include "ConnectTurn.h"

#include <condition_variable>
#include <mutex>

namespace kel {

namespace {

struct State {
    std::mutex mutex;
    std::condition_variable freed;
    bool taken = false;  // guarded by mutex
};

State& state() {
    static auto* instance = new State;
    return *instance;
}

}  // namespace

ConnectTurn::ConnectTurn(std::chrono::milliseconds patience) {
    std::unique_lock<std::mutex> lock(state().mutex);
    _mine = state().freed.wait_for(lock, patience, [] { return !state().taken; });
    if (_mine) state().taken = true;
}

ConnectTurn::~ConnectTurn() {
    if (!_mine) return;
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().taken = false;
    state().freed.notify_one();
}

}  // namespace kel
