#include <Poco/Event.h>
#include <Poco/Exception.h>
#include <Poco/NotificationCenter.h>
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>
#include <vector>

#include "common/NotificationCenter.h"

using namespace kel;

namespace {

struct Counted : Poco::Notification {
    Counted() { ++alive; }
    ~Counted() override { --alive; }
    static inline std::atomic<int> alive{0};
};

// Each test leaves nothing behind, also in POCO's process-wide center.
struct Notifications : ::testing::Test {
    ~Notifications() override {
        _center.reset();
        EXPECT_EQ(Poco::NotificationCenter::defaultCenter().countObservers(), 0u);
        EXPECT_EQ(Counted::alive, 0);
    }

    void add(const std::string& name, std::function<void(Poco::Notification*)> callback) {
        _center->addObserver(Observer::createInstance(name, std::move(callback)));
    }
    void post() { _center->postNotification(new Counted); }

    std::optional<NotificationCenter> _center{std::in_place};
};

}  // namespace

TEST_F(Notifications, ReachEveryObserverAndLeaveNothingBehind) {
    const Poco::AutoPtr<Counted> captured(new Counted);
    int calls = 0;
    const auto count = [&calls, captured](auto*) { ++calls; };
    for (const char* name : {"a", "b", "b", "c"}) add(name, count);
    add("c", nullptr);
    EXPECT_EQ(captured->referenceCount(), 4) << "a replaced observer is released";
    for (int i = 0; i < 100'000; ++i) post();
    Poco::NotificationCenter::defaultCenter().postNotification(new Counted);
    EXPECT_EQ(calls, 200'002);
    EXPECT_THROW(_center->addObserver(nullptr), Poco::NullPointerException);
    add("d", [](auto*) { throw Poco::TimeoutException(); });
    EXPECT_THROW(post(), Poco::TimeoutException);  // and d's removal waits for no such call
}

TEST_F(Notifications, NothingOfAnObserverIsLeftOnceItIsRemoved) {
    for (int round = 0; round < 100; ++round) {
        Poco::Event posting, others;
        std::atomic<bool> ended{false};
        std::string calls;
        auto owned = std::make_shared<int>();
        const std::weak_ptr<int> left = owned;
        add("a", [&, owned = std::move(owned)](auto*) {
            posting.set();
            others.wait();
            for (int i = 0; i < 100; ++i) std::this_thread::yield();
            ended = true;
        });
        for (const char* name : {"b", "c"}) add(name, [&](auto*) { calls += "former"; });
        std::jthread poster([&] { post(); });
        posting.wait();  // by now POCO has its list of whom to call
        _center->removeObserver("b");
        add("c", [&](auto*) { calls += "latter"; });
        others.set();
        _center->removeObserver("a");
        EXPECT_TRUE(ended);
        EXPECT_TRUE(left.expired()) << "what the callback holds is not destroyed yet";
        poster.join();
        EXPECT_EQ(calls, "latter");
        _center->removeObserver("c");
    }
}

TEST_F(Notifications, AddedReplacedRemovedAndPostedByManyAndFromCallbacks) {
    constexpr int kThreads = 4, kRounds = 1000;
    std::atomic<int> calls{0};
    const auto count = [&](auto* n) { calls += dynamic_cast<Counted*>(n) != nullptr; };
    const auto work = [&](int thread) {
        const std::string own = std::to_string(thread), others = std::to_string(thread ^ 1);
        for (int round = 0; round < kRounds; ++round) {
            add("a", count);
            add(own, [&, own, others](auto*) {
                _center->removeObserver(own);
                _center->removeObserver(others);  // whose callback may be doing the same
                _center->postNotification(new Poco::Notification);
                add("a", count);
            });
            post();
        }
    };
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
    threads.clear();
    EXPECT_EQ(calls, kThreads * kRounds) << "each post reaches the replaced or the new one";
}
