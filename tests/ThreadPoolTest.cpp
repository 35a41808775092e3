#include "common/ThreadPool.h"

#include <Poco/Exception.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <latch>
#include <thread>

#include "Await.h"
#include "CapturedLog.h"

using kel::ThreadPool;

namespace {

bool accepts(ThreadPool& pool, const std::function<void()>& task) {
    try {
        pool.start(task);
        return true;
    } catch (const Poco::NoThreadAvailableException&) {
        std::this_thread::yield();
        return false;
    }
}

}  // namespace

TEST(ThreadPool, RefusesWorkWhenFullAndFinishesTheRest) {
    const CapturedLog log;
    std::atomic<int> done{0};
    std::latch gate(1);
    const auto task = [&] {
        gate.wait();
        ++done;
    };
    const auto pool = std::make_shared<ThreadPool>();
    for (int i = 0; i < 32; ++i) pool->start(task);
    EXPECT_THROW(pool->start(task), Poco::NoThreadAvailableException);

    EXPECT_EQ(1u, log.count(""));
    EXPECT_EQ(36, log.find("exception: No thread available").getSourceLine());
    EXPECT_STREQ("src/common/ThreadPool", log.find("").getSourceFile());

    gate.count_down();
    EXPECT_TRUE(await([&] { return pool->pendingTasks() == 0; }));
    pool->start(task);
    pool->stop();
    EXPECT_EQ(33, done);
}

TEST(ThreadPool, LogsWhatATaskThrowsAndGoesOn) {
    const CapturedLog log;
    const auto pool = std::make_shared<ThreadPool>();
    pool->start([] { throw 42; });  // nobody's exception type; must not end the process
    pool->start({});
    pool->start([] { throw Poco::TimeoutException("the valve"); });
    pool->start([] { throw std::runtime_error("the pump"); });
    EXPECT_TRUE(await([&] { return pool->pendingTasks() == 0; }));
    EXPECT_EQ(2u, log.count(""));
    EXPECT_EQ(49, log.find("Timeout: the valve").getSourceLine());
    EXPECT_EQ(52, log.find("the pump").getSourceLine());
}

// A task may end before the pool has recorded it.
TEST(ThreadPool, TinyTasksLeaveNothingBehind) {
    const auto shared = std::make_shared<ThreadPool>(4, 4);
    ThreadPool unshared(4, 4);
    for (ThreadPool* pool : {shared.get(), &unshared}) {
        const auto captured = std::make_shared<int>(0);
        for (int accepted = 0; accepted < 5000;) accepted += accepts(*pool, [captured] {});
        ASSERT_TRUE(await([&] { return pool->pendingTasks() == 0; }));
        EXPECT_EQ(1, captured.use_count());
    }
}

TEST(ThreadPool, StopRunsWhatOthersGotAcceptedAndRefusesTheRest) {
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> accepted{0}, done{0};
        ThreadPool pool(2, 4);
        auto submitter = std::async(std::launch::async, [&] {
            for (;;) accepted += accepts(pool, [&] { ++done; });
        });
        while (accepted == 0) std::this_thread::yield();
        pool.stop();
        EXPECT_THROW(submitter.get(), Poco::IllegalStateException);
        ASSERT_EQ(accepted, done);
    }
}

TEST(ThreadPool, IsDestroyedByItsOwnerAndNotByATaskThatEnds) {
    const auto threads = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    };
    ThreadPool(1, 1).stop();  // whatever a first thread brings with it is there now
    const auto before = threads();
    for (int round = 0; round < 500; ++round) {
        auto pool = std::make_shared<ThreadPool>(1, 1);
        std::promise<void> done;
        pool->start([&] { done.set_value(); });
        done.get_future().wait();
        pool.reset();
    }
    EXPECT_EQ(before, threads());
}

TEST(ThreadPoolDeathTest, ProcessEndsCleanlyWithWorkInHand) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto endWithWork = [] {
        const auto work = [] { std::this_thread::sleep_for(std::chrono::milliseconds(200)); };
        for (int i = 0; i < 16; ++i) ThreadPool::defaultPool().start(work);
        std::exit(0);
    };
    EXPECT_EXIT(endWithWork(), ::testing::ExitedWithCode(0), "");
}
