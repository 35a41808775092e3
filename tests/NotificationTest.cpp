#include <Poco/Exception.h>
#include <Poco/NObserver.h>
#include <Poco/NotificationCenter.h>
#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

#include "common/NotificationCenter.h"

using namespace kel;

namespace {

using Callback = std::function<void(Poco::Notification*)>;

class Counted : public Poco::Notification {
public:
    using Ptr = Poco::AutoPtr<Counted>;
    Counted() { ++alive; }
    static std::atomic<int> alive;

protected:
    ~Counted() override { --alive; }
};
std::atomic<int> Counted::alive{0};

struct PocoListener {
    void handle(const Poco::AutoPtr<Poco::Notification>&) { ++calls; }
    int calls = 0;
};

}  // namespace

// Each test leaves POCO's process-wide center as it found it.
class Notifications : public ::testing::Test {
protected:
    ~Notifications() override { EXPECT_EQ(_poco.countObservers(), 0u); }

    void add(const std::string& name, Callback callback) {
        _center.addObserver(Observer::createInstance(name, std::move(callback)));
    }
    void post() { _center.postNotification(new Counted); }

    NotificationCenter& _center = NotificationCenter::defaultCenter();
    Poco::NotificationCenter& _poco = Poco::NotificationCenter::defaultCenter();
};

TEST_F(Notifications, ReachEveryObserverOnThePostingThread) {
    std::vector<std::string> calls;
    const Counted::Ptr posted(new Counted);
    const auto poster = std::this_thread::get_id();
    const auto note = [&](const std::string& name) {
        return [&, name](Poco::Notification* notification) {
            EXPECT_EQ(notification, posted.get());
            EXPECT_EQ(std::this_thread::get_id(), poster);
            calls.push_back(name);
        };
    };
    add("first", note("first"));
    add("empty", nullptr);
    add("second", note("second"));
    PocoListener listener;
    const Poco::NObserver<PocoListener, Poco::Notification> own(listener, &PocoListener::handle);
    _poco.addObserver(own);

    _center.postNotification(posted);
    _poco.postNotification(posted);
    EXPECT_EQ(calls, (std::vector<std::string>{"first", "second", "first", "second"}));
    EXPECT_EQ(listener.calls, 2);
    EXPECT_EQ(posted->referenceCount(), 1);

    _poco.removeObserver(own);
    for (const char* name : {"first", "unknown", "empty", "second"}) _center.removeObserver(name);
    _center.postNotification(posted);
    EXPECT_EQ(calls.size(), 4u);
}

TEST_F(Notifications, LeaveNothingBehindAfter100000Posts) {
    int calls = 0;
    Poco::AutoPtr<Poco::Notification> kept;
    add("counts", [&](Poco::Notification*) { ++calls; });
    add("keeps the last", [&](Poco::Notification* n) { kept.assign(n, true); });
    for (int i = 0; i < 100'000; ++i) post();
    EXPECT_EQ(calls, 100'000);
    EXPECT_EQ(Counted::alive, 1);
    kept.reset();
    EXPECT_EQ(Counted::alive, 0);
    _center.removeObserver("counts");
    _center.removeObserver("keeps the last");
}

TEST_F(Notifications, NothingToRegisterOrPostIsAProgrammingError) {
    EXPECT_THROW(_center.addObserver(nullptr), Poco::NullPointerException);
    EXPECT_THROW(_center.postNotification({}), Poco::NullPointerException);
}

TEST_F(Notifications, AnObserverLivesUntilItIsRemoved) {
    const auto captured = std::make_shared<int>();
    {
        NotificationCenter local;
        for (int round = 0; round < 2; ++round) {  // the second replaces the first
            local.addObserver(Observer::createInstance("a", [captured](Poco::Notification*) {}));
            EXPECT_EQ(captured.use_count(), 2);
        }
        local.addObserver(Observer::createInstance("b", [captured](Poco::Notification*) {}));
        local.removeObserver("a");
        EXPECT_EQ(captured.use_count(), 2);
    }
    EXPECT_EQ(captured.use_count(), 1) << "a center removes its observers at its end";
}

TEST_F(Notifications, WhatACallbackThrowsReachesThePoster) {
    int calls = 0;
    add("throws", [&](Poco::Notification*) {
        ++calls;
        throw std::runtime_error("callback");
    });
    EXPECT_THROW(post(), std::runtime_error);
    EXPECT_THROW(post(), std::runtime_error);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(Counted::alive, 0);
    _center.removeObserver("throws");  // waits for no call that has ended this way
}

TEST_F(Notifications, ReplacedUnderTrafficReachEitherTheOldOrTheNew) {
    constexpr int kPosts = 20'000;
    std::atomic<int> calls{0};
    std::atomic<bool> done{false};
    add("name", [&](Poco::Notification*) { ++calls; });
    std::thread poster([&] {
        for (int i = 0; i < kPosts; ++i) post();
        done = true;
    });
    while (!done) add("name", [&](Poco::Notification*) { ++calls; });
    poster.join();
    EXPECT_EQ(calls, kPosts);
    EXPECT_EQ(_poco.countObservers(), 1u);
    _center.removeObserver("name");
}

TEST_F(Notifications, NoCallBeginsOnceAnObserverIsRemoved) {
    std::latch posting(1);
    std::latch removed(1);
    std::string calls;
    add("first", [&](Poco::Notification*) {
        posting.count_down();
        removed.wait();
    });
    add("removed", [&](Poco::Notification*) { calls += "removed"; });
    add("replaced", [&](Poco::Notification*) { calls += "former"; });
    std::thread poster([&] { post(); });
    posting.wait();  // by now POCO has its list of whom to call
    _center.removeObserver("removed");
    add("replaced", [&](Poco::Notification*) { calls += "latter"; });
    removed.count_down();
    poster.join();
    EXPECT_EQ(calls, "latter");
    _center.removeObserver("first");
    _center.removeObserver("replaced");
}

TEST_F(Notifications, RemovalWaitsForACallOnAnotherThread) {
    std::latch started(1);
    std::atomic<bool> ended{false};
    add("slow", [&](Poco::Notification*) {
        started.count_down();
        while (_poco.hasObservers()) std::this_thread::yield();  // until it is being removed
        for (int i = 0; i < 10'000; ++i) std::this_thread::yield();
        ended = true;
    });
    std::thread poster([&] { post(); });
    started.wait();
    _center.removeObserver("slow");
    EXPECT_TRUE(ended);
    poster.join();
}

TEST_F(Notifications, CallbacksMayRemoveThemselvesAndTheNext) {
    std::string calls;
    add("a", [&](Poco::Notification*) {
        calls += "a";
        _center.removeObserver("a");
        _center.removeObserver("b");
        add("c", [&](Poco::Notification*) {
            calls += "c";
            add("c", [&](Poco::Notification*) { calls += "d"; });
        });
    });
    add("b", [&](Poco::Notification*) { calls += "b"; });
    for (int i = 0; i < 3; ++i) post();
    EXPECT_EQ(calls, "acd");
    _center.removeObserver("c");
}

TEST_F(Notifications, TwoCallbacksThatRemoveEachOtherBothEnd) {
    class ToA : public Poco::Notification {};
    std::latch both(2);
    std::atomic<int> ended{0};
    const auto remover = [&](bool takesToA, const std::string& other) {
        return [&, takesToA, other](Poco::Notification* notification) {
            if ((dynamic_cast<ToA*>(notification) != nullptr) != takesToA) return;
            both.arrive_and_wait();
            _center.removeObserver(other);
            ++ended;
        };
    };
    add("a", remover(true, "b"));
    add("b", remover(false, "a"));
    std::thread other([&] { _center.postNotification(new ToA); });
    post();
    other.join();
    EXPECT_EQ(ended, 2);
}

TEST_F(Notifications, AddedRemovedAndPostedByManyAtOnce) {
    constexpr int kRounds = 300;
    std::atomic<int> nested{0};
    const Callback meddle = [&](Poco::Notification* notification) {
        if (dynamic_cast<Counted*>(notification) == nullptr) return;
        _center.removeObserver("shared");
        _center.postNotification(new Poco::Notification);
        add("shared", [&](Poco::Notification*) { ++nested; });
    };
    std::vector<std::thread> threads;
    for (int id = 0; id < 4; ++id) {
        threads.emplace_back([&, own = "own" + std::to_string(id)] {
            for (int round = 0; round < kRounds; ++round) {
                add(own, meddle);
                post();
                _center.removeObserver(own);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_GT(nested, 0);
    EXPECT_EQ(Counted::alive, 0);
    _center.removeObserver("shared");
}
