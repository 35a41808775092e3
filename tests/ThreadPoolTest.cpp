#include "common/ThreadPool.h"

#include <Poco/Exception.h>
#include <Poco/Runnable.h>
#include <Poco/Task.h>
#include <Poco/ThreadLocal.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "Await.h"
#include "CapturedLog.h"
#include "common/Library.h"
#include "common/Statistics.h"
#include "common/internal/tasks/TaskPool.h"

using kel::ThreadPool;

namespace {

// Holds up tasks until it is opened.
class Gate : public Poco::Runnable {
public:
    void open() { _promise.set_value(); }
    void wait() const { _opened.wait(); }
    void run() override { wait(); }

private:
    std::promise<void> _promise;
    const std::shared_future<void> _opened = _promise.get_future().share();
};

class CountingTask : public Poco::Task {
public:
    explicit CountingTask(std::atomic<int>& ran) : Task("count"), _ran(ran) {}
    void runTask() override { ++_ran; }

private:
    std::atomic<int>& _ran;
};

// Counts the threads that have called it and have not ended.
int threadsAlive() {
    static std::atomic<int> alive{0};
    struct Mark {
        Mark() { ++alive; }
        ~Mark() { --alive; }
    };
    static thread_local const Mark mark;
    static_cast<void>(mark);  // makes the calling thread count
    return alive;
}

}  // namespace

// The first case, since it needs a process that has not used the pool.
TEST(ThreadPool, DefaultPoolIsNotMadeByStatisticsAndCanBeStoppedUnused) {
    EXPECT_EQ(0u, kel::statistics().pool.limit);
    EXPECT_EQ(1, ThreadPool::defaultPool().allocated());
    EXPECT_EQ(32u, kel::statistics().pool.limit);
    kel::stopLibrary();
    EXPECT_EQ(0, ThreadPool::defaultPool().allocated());
}

TEST(ThreadPool, RefusesWorkWhenFullLogsWhatATaskThrowsAndGoesOn) {
    const CapturedLog log;
    Gate gate;
    ThreadPool pool;
    for (int i = 0; i < 32; ++i) pool.start([&] { gate.wait(); });
    EXPECT_THROW(pool.start([] {}), Poco::NoThreadAvailableException);
    gate.open();
    EXPECT_TRUE(await([&] { return pool.pendingTasks() == 0; }));
    pool.start([] { throw 42; });  // nobody's exception type; must not end the process
    pool.start({});
    pool.start([] { throw Poco::TimeoutException("the tap"); });
    pool.start([] { throw std::runtime_error("the pump"); });
    pool.stop();
    EXPECT_EQ(3u, log.count(""));
    EXPECT_EQ(36, log.find("exception: No thread available").getSourceLine());
    EXPECT_EQ(49, log.find("Timeout: the tap").getSourceLine());
    EXPECT_EQ(52, log.find("the pump").getSourceLine());
    EXPECT_STREQ("src/common/ThreadPool", log.find("").getSourceFile());
}

// A task may end before the pool has recorded it.
TEST(ThreadPool, StopRunsTheTinyTasksAcceptedRefusesTheRestAndLeavesNothingBehind) {
    for (int round = 0; round < 200; ++round) {
        const auto captured = std::make_shared<std::atomic<int>>(0);
        std::atomic<int> accepted{0};
        ThreadPool pool(2, 4);
        const auto submit = [&] {
            for (;; std::this_thread::yield()) {
                try {
                    pool.start([captured] { ++*captured; });
                    ++accepted;
                } catch (const Poco::NoThreadAvailableException&) {
                }
            }
        };
        auto submitter = std::async(std::launch::async, submit);
        while (accepted < 25) std::this_thread::yield();
        pool.stop();
        EXPECT_THROW(submitter.get(), Poco::IllegalStateException);
        ASSERT_EQ(0u, pool.pendingTasks());
        ASSERT_EQ(accepted, *captured);
        ASSERT_EQ(1, captured.use_count());
    }
}

// Whoever ends a task may take the next one, but none waits for a task that does not end.
TEST(ThreadPool, NoTaskWaitsForABlockedOne) {
    const CapturedLog log;
    ThreadPool pool("blocked", 1, 8, 60, 0);
    for (int round = 0; round < 300; ++round) {
        Gate gate;
        std::atomic<int> tiny{0};
        const auto submitter = [&] {
            for (int i = 0; i < 2; ++i) {
                pool.start([&] { ++tiny; });
                pool.start([&] { gate.wait(); }, "tap");
            }
        };
        std::thread other(submitter);
        submitter();
        other.join();
        ASSERT_TRUE(await([&] { return tiny == 4 && pool.used() == 4; }));
        gate.open();
        pool.joinAll();
        ASSERT_EQ(8, pool.available());
    }
    EXPECT_LE(pool.allocated(), 8);
    EXPECT_EQ(0u, log.count(""));
}

TEST(ThreadPool, TryStartLeavesTheCallableAloneWhereThereIsNoPlace) {
    const CapturedLog log;
    ThreadPool pool(1, 2);
    Gate gate;
    std::atomic<int> done{0};
    static_cast<Poco::ThreadPool&>(pool).start(gate);  // POCO's tasks take places, too
    pool.start([&] { gate.wait(); });
    std::function<void()> task = [&] { ++done; };
    // NOLINTBEGIN(bugprone-use-after-move): a refused task is left as it is
    EXPECT_FALSE(pool.tryStart(std::move(task)));
    EXPECT_FALSE(pool.tryStart(std::move(task), std::chrono::milliseconds(20)));
    const auto noThread = []() -> bool { throw Poco::SystemException("no thread"); };
    const auto none = kel::makeLoggingThreads("none", 1, std::chrono::seconds(1), noThread);
    const auto tryWithoutThread = [&] {
        return kel::tryToStart(*none, std::move(task), 1, std::chrono::milliseconds(0), 0);
    };
    EXPECT_THROW(tryWithoutThread(), Poco::SystemException);
    EXPECT_EQ(std::pair(2, 0), std::pair(pool.used(), pool.available()));
    EXPECT_EQ(0u, log.count(""));
    auto patient = std::async(std::launch::async, [&] {
        return pool.tryStart(std::move(task), std::chrono::minutes(1));
    });
    // NOLINTEND(bugprone-use-after-move)
    gate.open();
    EXPECT_TRUE(patient.get());
    pool.stop();
    EXPECT_EQ(1, done);
    EXPECT_FALSE(pool.tryStart([&] { ++done; }, std::chrono::minutes(1)));
}

TEST(ThreadPool, NamesItsThreadsAndClearsTheirLocalsForEachTask) {
    ThreadPool pool("crew", 1, 1, 60, 0);
    Poco::ThreadLocal<int> local;
    std::vector<std::string> names;
    const auto note = [&] {
        names.push_back(Poco::Thread::current()->name());
        EXPECT_EQ(0, (*local)++);
    };
    for (const char* name : {"tap", "", "pump"}) {
        pool.start(note, name);
        pool.joinAll();
    }
    EXPECT_EQ(names, std::vector<std::string>({"tap (crew[#1])", "crew[#1]", "pump (crew[#1])"}));
}

// Its threads end with it, also where one of its tasks releases it.
TEST(ThreadPool, IsDestroyedWithItsThreadsByItsOwnerOrByATask) {
    const int before = threadsAlive();
    std::atomic<int> ran{0};
    for (int round = 0; round < 500; ++round) {
        Gate given;
        std::promise<void> released;
        auto pool = std::make_shared<ThreadPool>(1, 2);
        pool->start([&] {
            threadsAlive();
            ++ran;
        });
        pool->start([&, held = pool]() mutable {
            threadsAlive();
            given.wait();
            held = nullptr;
            released.set_value();
        });
        if (round % 2 == 0) pool = nullptr;  // which leaves it to the task
        given.open();
        released.get_future().wait();
    }
    EXPECT_EQ(500, ran);
    EXPECT_TRUE(await([&] { return threadsAlive() == before; }));
}

TEST(ThreadPool, StartsAgainAfterTheLibrarysStop) {
    std::atomic<int> done{0};
    for (int round = 1; round <= 3; ++round) {
        ThreadPool::defaultPool().start([&] { ++done; });
        kel::stopLibrary();
        EXPECT_EQ(round, done);
        EXPECT_EQ(0, ThreadPool::defaultPool().used());
    }
}

TEST(ThreadPool, IsDestroyedWithinOneWaitForAllTasksWhichStillEnd) {
    const CapturedLog log;
    const auto gate = std::make_shared<Gate>();
    const auto ended = std::make_shared<std::atomic<int>>(0);
    {
        ThreadPool pool("stuck", 1, 4, 60, 0);
        const auto task = [=] {
            gate->wait();
            ++*ended;
        };
        for (int i = 0; i < 3; ++i) pool.start(task);
    }
    EXPECT_EQ(1u, log.count("thread pool stuck stops with 3 tasks running"));
    gate->open();
    EXPECT_TRUE(await([&] { return *ended == 3; }));
}

TEST(TaskManager, EndsWithEveryTaskThatWasStarted) {
    std::atomic<int> ran{0};
    for (int round = 0; round < 200; ++round) {
        kel::TaskManager manager = {"tasks", 1, 2};
        for (int i = 0; i < 2; ++i) manager.start(new CountingTask(ran));
    }
    EXPECT_EQ(400, ran);
}

TEST(ThreadPoolDeathTest, ProcessEndsCleanlyWithWorkInHand) {
    const auto endWithWork = [] {
        const auto work = [] { std::this_thread::sleep_for(std::chrono::milliseconds(200)); };
        for (int i = 0; i < 16; ++i) ThreadPool::defaultPool().start(work);
        std::exit(0);
    };
    EXPECT_EXIT(endWithWork(), ::testing::ExitedWithCode(0), "");
}
