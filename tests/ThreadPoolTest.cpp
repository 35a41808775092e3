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

TEST(ThreadPool, RefusesWorkWhenFullLogsWhatATaskThrowsAndGoesOn) {
    const CapturedLog log;
    std::latch gate(1);
    ThreadPool pool;
    for (int i = 0; i < 32; ++i) pool.start([&] { gate.wait(); });
    EXPECT_THROW(pool.start([] {}), Poco::NoThreadAvailableException);
    gate.count_down();
    EXPECT_TRUE(await([&] { return pool.pendingTasks() == 0; }));
    pool.start([] { throw 42; });  // nobody's exception type; must not end the process
    pool.start({});
    pool.start([] { throw Poco::TimeoutException("the valve"); });
    pool.start([] { throw std::runtime_error("the pump"); });
    pool.stop();
    EXPECT_EQ(3u, log.count(""));
    EXPECT_EQ(36, log.find("exception: No thread available").getSourceLine());
    EXPECT_EQ(49, log.find("Timeout: the valve").getSourceLine());
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

TEST(ThreadPool, IsDestroyedByItsOwnerAndNotByATaskThatEnds) {
    const auto threads = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    };
    ThreadPool(1, 1).stop();  // whatever a first thread brings with it is there now
    const auto before = threads();
    for (int round = 0; round < 500; ++round) {
        std::latch started(1);
        const auto pool = std::make_shared<ThreadPool>(1, 1);
        pool->start([&] { started.count_down(); });
        started.wait();
    }
    EXPECT_EQ(before, threads());
}

TEST(ThreadPoolDeathTest, ProcessEndsCleanlyWithWorkInHand) {
    const auto endWithWork = [] {
        const auto work = [] { std::this_thread::sleep_for(std::chrono::milliseconds(200)); };
        for (int i = 0; i < 16; ++i) ThreadPool::defaultPool().start(work);
        std::exit(0);
    };
    EXPECT_EXIT(endWithWork(), ::testing::ExitedWithCode(0), "");
}
