#include <Poco/Exception.h>
#include <Poco/NotificationCenter.h>
#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#include "common/NotificationCenter.h"

using namespace kel;

namespace {

class Counted : public Poco::Notification {
public:
    Counted() { ++alive; }
    static inline std::atomic<int> alive{0};

protected:
    ~Counted() override { --alive; }
};

// Leaves nothing behind, also in POCO's process-wide center.
class Notifications : public ::testing::Test {
protected:
    ~Notifications() override {
        for (const char* name : {"a", "b", "c"}) _center.removeObserver(name);
        EXPECT_EQ(_poco.countObservers(), 0u);
        EXPECT_EQ(Counted::alive, 0);
    }

    void add(const std::string& name, std::function<void(Poco::Notification*)> callback) {
        _center.addObserver(Observer::createInstance(name, std::move(callback)));
    }
    void post() { _center.postNotification(new Counted); }

    NotificationCenter& _center = NotificationCenter::defaultCenter();
    Poco::NotificationCenter& _poco = Poco::NotificationCenter::defaultCenter();
};

}  // namespace

TEST_F(Notifications, ReachEveryObserverUntilItIsRemoved) {
    const Poco::AutoPtr<Poco::Notification> posted(new Counted);
    int calls = 0;
    const auto count = [&](Poco::Notification* n) { calls += n == posted.get(); };
    add("b", nullptr);
    for (const char* name : {"a", "c"}) add(name, count);
    _center.postNotification(posted);
    _poco.postNotification(posted);
    for (const char* name : {"a", "unknown", "b", "c"}) _center.removeObserver(name);
    _center.postNotification(posted);
    EXPECT_EQ(calls, 4);
    EXPECT_EQ(posted->referenceCount(), 1);
    EXPECT_THROW(_center.addObserver(nullptr), Poco::NullPointerException);
    add("a", [](Poco::Notification*) { throw Poco::TimeoutException(); });
    EXPECT_THROW(post(), Poco::TimeoutException);  // and a's removal waits for no such call
}

TEST_F(Notifications, LeaveNothingBehindAfter100000Posts) {
    int calls = 0;
    Poco::AutoPtr<Poco::Notification> kept;
    const auto captured = std::make_shared<int>();
    const auto count = [&calls, captured](Poco::Notification*) { ++calls; };
    {
        NotificationCenter local;
        for (int round = 0; round < 2; ++round) {  // the second replaces the first
            local.addObserver(Observer::createInstance("counts", count));
            EXPECT_EQ(captured.use_count(), 3);
        }
        add("a", [&](Poco::Notification* n) { kept.assign(n, true); });
        for (int i = 0; i < 100'000; ++i) post();
    }
    EXPECT_EQ(captured.use_count(), 2) << "a center removes its observers at its end";
    EXPECT_EQ(calls, 100'000);
    EXPECT_EQ(Counted::alive, 1);
}

TEST_F(Notifications, NoCallBeginsOrGoesOnOnceAnObserverIsRemoved) {
    std::latch posting(1), others(1);
    std::atomic<bool> ended{false};
    std::string calls;
    add("a", [&](Poco::Notification*) {
        posting.count_down();
        others.wait();
        for (int i = 0; i < 10'000; ++i) std::this_thread::yield();
        ended = true;
    });
    add("b", [&](Poco::Notification*) { calls += "removed"; });
    add("c", [&](Poco::Notification*) { calls += "former"; });
    std::thread poster([&] { post(); });
    posting.wait();  // by now POCO has its list of whom to call
    _center.removeObserver("b");
    add("c", [&](Poco::Notification*) { calls += "latter"; });
    others.count_down();
    _center.removeObserver("a");
    EXPECT_TRUE(ended);
    poster.join();
    EXPECT_EQ(calls, "latter");
}

TEST_F(Notifications, AddedReplacedRemovedAndPostedByManyAndFromCallbacks) {
    constexpr int kThreads = 4, kRounds = 1000;
    std::atomic<int> atWork{kThreads}, calls{0}, nested{0};
    const auto count = [&](Poco::Notification* n) {
        calls += dynamic_cast<Counted*>(n) != nullptr;
    };
    const auto work = [&](const std::string& own, const std::string& others) {
        for (int round = 0; round < kRounds; ++round) {
            add(own, [&, own, others](Poco::Notification* notification) {
                if (dynamic_cast<Counted*>(notification) == nullptr) return;
                _center.removeObserver(own);
                _center.removeObserver(others);  // whose callback may be doing the same
                _center.postNotification(new Poco::Notification);
                add("c", [&](Poco::Notification*) { ++nested; });
            });
            post();
        }
        --atWork;
    };
    add("a", count);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back(work, std::to_string(i), std::to_string(i ^ 1));
    }
    while (atWork > 0) add("a", count);
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(calls, kThreads * kRounds) << "each post reaches the replaced or the new one";
    EXPECT_GT(nested, 0);
}
