#include "ConnectTurn.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>

#include "../process/NeverDestroyed.h"

namespace kel {

namespace {

constexpr auto kAskAgain = std::chrono::milliseconds(100);

struct State {
    std::mutex mutex;
    std::condition_variable freed;
    // Guarded by mutex.
    bool taken = false;
    std::multiset<unsigned> waiting;  // the ranks
};

State& state() {
    static NeverDestroyed<State> instance;
    return *instance;
}

}  // namespace

ConnectTurn::ConnectTurn(unsigned rank, const GiveUp& giveUp) {
    State& turn = state();
    std::unique_lock<std::mutex> lock(turn.mutex);
    const auto place = turn.waiting.insert(rank);
    const auto isNext = [&] { return !turn.taken && *turn.waiting.begin() == rank; };
    _mine = isNext();
    while (!_mine && !giveUp()) _mine = turn.freed.wait_for(lock, kAskAgain, isNext);
    turn.waiting.erase(place);
    if (_mine) {
        turn.taken = true;
    } else {
        turn.freed.notify_all();  // another may be next now
    }
}

ConnectTurn::~ConnectTurn() {
    if (!_mine) return;
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().taken = false;
    state().freed.notify_all();
}

}  // namespace kel
