#include "common/ThreadPool.h"

#include <Poco/Exception.h>
#include <Poco/Task.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Await.h"
#include "CapturedLog.h"

using kel::TaskManager;
using kel::ThreadPool;

namespace {

// Tasks that have begun and wait for leave to end.
class Blockers {
public:
    ~Blockers() { release(); }

    std::function<void()> task() {
        return [this, gate = _gate] {
            ++begun;
            gate.wait();
            ++done;
        };
    }

    void release() {
        if (!_released) _release.set_value();
        _released = true;
    }

    std::atomic<int> begun{0};
    std::atomic<int> done{0};

private:
    bool _released = false;
    std::promise<void> _release;
    std::shared_future<void> _gate{_release.get_future()};
};

}  // namespace

TEST(ThreadPool, DefaultPoolIsOneForAllThreads) {
    std::vector<std::future<ThreadPool*>> calls;
    for (int i = 0; i < 8; ++i) {
        calls.push_back(std::async(std::launch::async, [] { return &ThreadPool::defaultPool(); }));
    }
    for (auto& call : calls) EXPECT_EQ(&ThreadPool::defaultPool(), call.get());
    EXPECT_EQ("default", ThreadPool::defaultPool().name());
    EXPECT_EQ(32, ThreadPool::defaultPool().capacity());
}

TEST(ThreadPool, RefusesWorkWhenFullAndFinishesTheRest) {
    CapturedLog log;
    Blockers blockers;
    const auto pool = std::make_shared<ThreadPool>();
    for (int i = 0; i < 32; ++i) pool->start(blockers.task());
    EXPECT_THROW(pool->start(blockers.task()), Poco::NoThreadAvailableException);

    ASSERT_EQ(1u, log.count(""));
    const Poco::Message line = log.find("exception: No thread available");
    EXPECT_EQ(Poco::Message::PRIO_ERROR, line.getPriority());
    EXPECT_STREQ("src/common/ThreadPool", line.getSourceFile());
    EXPECT_EQ(36, line.getSourceLine());

    blockers.release();
    ASSERT_TRUE(await([&] { return pool->pendingTasks() == 0; }));
    EXPECT_EQ(32, blockers.done);
    pool->start(blockers.task());
    pool->stop();
    EXPECT_EQ(33, blockers.done);
}

TEST(ThreadPool, LogsWhatATaskThrowsAndGoesOn) {
    struct Case {
        std::function<void()> task;
        std::string text;
        int line;
    };
    const std::vector<Case> cases = {
        {[] { throw Poco::TimeoutException("the valve"); }, "Timeout: the valve", 49},
        {[] { throw std::runtime_error("the pump"); }, "the pump", 52},
    };
    CapturedLog log;
    const auto pool = std::make_shared<ThreadPool>(1, 1);
    const auto idle = [&] { return pool->available() == 1; };
    pool->start([] { throw 42; });  // nobody's exception type; must not end the process
    ASSERT_TRUE(await(idle));
    pool->start({});
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        ASSERT_TRUE(await(idle));
        pool->start(c.task);
        ASSERT_TRUE(log.await(c.text));
        EXPECT_EQ(c.line, log.find(c.text).getSourceLine());
    }
    ASSERT_TRUE(await([&] { return pool->pendingTasks() == 0; }));
    EXPECT_EQ(cases.size(), log.count(""));
}

// A task may end before the pool has recorded it.
TEST(ThreadPool, TinyTasksLeaveNothingBehind) {
    const auto shared = std::make_shared<ThreadPool>(4, 4);
    ThreadPool unshared(4, 4);
    for (ThreadPool* pool : {shared.get(), &unshared}) {
        const auto captured = std::make_shared<int>(0);
        int accepted = 0;
        while (accepted < 5000) {
            try {
                pool->start([captured] {});
                ++accepted;
            } catch (const Poco::NoThreadAvailableException&) {
                std::this_thread::yield();
            }
        }
        ASSERT_TRUE(await([&] { return pool->pendingTasks() == 0; }));
        EXPECT_EQ(1, captured.use_count());
    }
}

TEST(ThreadPool, StopRunsWhatWasAcceptedAndRefusesTheRest) {
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> done{0};
        ThreadPool pool(2, 2);
        pool.start([&] { ++done; });
        pool.start([&] { ++done; });
        pool.stop();
        ASSERT_EQ(2, done);
        EXPECT_THROW(pool.start([&] { ++done; }), Poco::IllegalStateException);
        pool.stop();
    }
}

TEST(ThreadPool, StopsWhileOthersSubmit) {
    std::atomic<int> accepted{0}, done{0};
    const auto pool = std::make_shared<ThreadPool>(2, 8);
    std::vector<std::future<void>> submitters;
    std::atomic<bool> refused{false};
    for (int i = 0; i < 3; ++i) {
        submitters.push_back(std::async(std::launch::async, [&] {
            while (!refused) {
                try {
                    pool->start([&] { ++done; });
                    ++accepted;
                } catch (const Poco::NoThreadAvailableException&) {
                    std::this_thread::yield();
                } catch (const Poco::IllegalStateException&) {
                    refused = true;
                }
            }
        }));
    }
    ASSERT_TRUE(await([&] { return accepted > 100; }));
    pool->stop();
    for (auto& submitter : submitters) submitter.get();
    EXPECT_EQ(accepted, done);
}

TEST(ThreadPoolDeathTest, ProcessEndsCleanlyWithWorkInHand) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto endWithWork = [] {
        for (int i = 0; i < 16; ++i) {
            ThreadPool::defaultPool().start([] {
                for (int round = 0; round < 200; ++round) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
            });
        }
        std::exit(0);
    };
    EXPECT_EXIT(endWithWork(), ::testing::ExitedWithCode(0), "");
}

namespace {

class BlockingTask : public Poco::Task {
public:
    explicit BlockingTask(Blockers& blockers) : Poco::Task("blocking"), _run(blockers.task()) {}
    void runTask() override { _run(); }

private:
    std::function<void()> _run;
};

}  // namespace

TEST(TaskManager, RunsSixteenTasksByDefaultAndWaitsForThem) {
    Blockers blockers;
    {
        TaskManager manager;
        for (int i = 0; i < 16; ++i) manager.start(new BlockingTask(blockers));
        EXPECT_THROW(manager.start(new BlockingTask(blockers)), Poco::NoThreadAvailableException);
        ASSERT_TRUE(await([&] { return blockers.begun == 16; }));
        blockers.release();
    }
    EXPECT_EQ(16, blockers.done);
}

TEST(TaskManager, RunsOnAGivenPool) {
    Blockers blockers;
    Poco::ThreadPool pool(1, 1);
    TaskManager manager(pool);
    manager.start(new BlockingTask(blockers));
    EXPECT_EQ(0, pool.available());
    blockers.release();
    manager.joinAll();
    EXPECT_EQ(1, blockers.done);
}
