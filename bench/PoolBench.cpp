// Tasks per second through kel::ThreadPool and through POCO's pool with a runnable made by hand.

#include <Poco/Exception.h>
#include <Poco/Runnable.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "Await.h"
#include "Rounds.h"
#include "common/ThreadPool.h"

namespace {

constexpr int kTasks = 100'000;

// Submits until it is accepted: a pool that is full for the moment refuses.
template <typename Submit>
void insist(Submit&& submit) {
    for (;; std::this_thread::yield()) {
        try {
            return submit();
        } catch (const Poco::NoThreadAvailableException&) {
        }
    }
}

// @param submit  called from `submitters` threads with the counter that the task raises.
template <typename Submit>
double tasksPerSecond(int submitters, Submit&& submit) {
    std::atomic<int> done{0};
    const auto begin = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < submitters; ++i) {
        threads.emplace_back([&] {
            for (int task = 0; task < kTasks / submitters; ++task) insist([&] { submit(done); });
        });
    }
    for (std::thread& thread : threads) thread.join();
    bench::check(await([&] { return done == kTasks; }), "not every task has run once");
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    return kTasks / took.count();
}

double throughOurs(int submitters) {
    kel::ThreadPool pool;
    return tasksPerSecond(submitters, [&](std::atomic<int>& done) { pool.start([&] { ++done; }); });
}

// Deletes itself, as a runnable has to that nobody waits for.
class Counting : public Poco::Runnable {
public:
    explicit Counting(std::atomic<int>& done) : _done(done) {}
    void run() override {
        ++_done;
        delete this;
    }

private:
    std::atomic<int>& _done;
};

double throughPoco(int submitters) {
    Poco::ThreadPool pool(1, 32, 60, 0);
    return tasksPerSecond(submitters, [&](std::atomic<int>& done) {
        auto task = std::make_unique<Counting>(done);
        pool.start(*task);
        task.release();
    });
}

}  // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv, [](const bench::Rounds& rounds) {
        rounds.table("Thread pool", "Tasks that only count, 32 threads at the most.");
        for (const int submitters : {1, 4}) {
            rounds.contest(std::to_string(submitters) + " submitting", {"tasks/s"},
                           [=] { return std::vector{throughOurs(submitters)}; },
                           {{"Poco::ThreadPool with a hand-made runnable",
                             [=] { return std::vector{throughPoco(submitters)}; }, 1.5}});
        }
    });
}
