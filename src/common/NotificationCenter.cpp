// NotificationCenter.cpp - named observers in POCO's notification center.
//
// POCO's own Observer hands its method a reference that the method must release, and calls out with
// its lock held, so that two callbacks that remove each other deadlock. So POCO gets a Relay of
// ours, which leads to the Slot of a name; the slot holds the observer of the moment. A post that
// POCO has already begun meets the slot, hence an observer that was just removed or replaced there.
//
// Locks, in this order: _mutex of a center, POCO's own, a slot's. None is held while a callback
// runs or while somebody waits for it.

#include "NotificationCenter.h"

#include <Poco/AbstractObserver.h>
#include <Poco/Exception.h>
#include <Poco/NotificationCenter.h>

#include <condition_variable>
#include <utility>

namespace kel {

namespace {

// Callbacks that this thread is in: it must not wait for one to end.
thread_local int callbackDepth = 0;

}  // namespace

class NotificationCenter::Slot {
public:
    struct Target {
        std::shared_ptr<Observer> observer;
        int running = 0;  // calls; guarded by the slot's _mutex
    };

    /// Puts `observer` (empty for none) in the place of the one before, which gets no more calls.
    std::shared_ptr<Target> exchange(std::shared_ptr<Observer> observer) {
        auto next = observer ? std::make_shared<Target>() : nullptr;
        if (next) next->observer = std::move(observer);
        const std::lock_guard<std::mutex> lock(_mutex);
        return std::exchange(_target, std::move(next));
    }

    /// Returns once no call of `former` runs; at once inside a callback.
    void awaitEnd(const std::shared_ptr<Target>& former) {
        if (!former || callbackDepth > 0) return;
        std::unique_lock<std::mutex> lock(_mutex);
        _ended.wait(lock, [&] { return former->running == 0; });
    }

    void deliver(Poco::Notification* notification) {
        const Call call(*this);
        if (call.target) call.target->observer->handle(notification);
    }

private:
    // Counts itself in and out, also when the callback throws.
    struct Call {
        explicit Call(Slot& owner) : slot(owner) {
            const std::lock_guard<std::mutex> lock(slot._mutex);
            target = slot._target;
            if (target) ++target->running;
            ++callbackDepth;
        }
        ~Call() {
            --callbackDepth;
            const std::lock_guard<std::mutex> lock(slot._mutex);
            if (target && --target->running == 0) slot._ended.notify_all();
        }
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

        Slot& slot;
        std::shared_ptr<Target> target;
    };

    std::mutex _mutex;
    std::condition_variable _ended;
    std::shared_ptr<Target> _target;  // guarded by _mutex
};

// What POCO holds, in a copy of its own. No `override`: which of the two accepts() is virtual
// depends on the release of POCO.
// NOLINTBEGIN(modernize-use-override)
class NotificationCenter::Relay : public Poco::AbstractObserver {
public:
    explicit Relay(std::shared_ptr<Slot> slot) : _slot(std::move(slot)) {}

    void notify(Poco::Notification* notification) const { _slot->deliver(notification); }

    bool equals(const Poco::AbstractObserver& other) const {
        const auto* relay = dynamic_cast<const Relay*>(&other);
        return relay && relay->_slot == _slot;
    }

    bool accepts(Poco::Notification*, const char*) const { return true; }
    bool accepts(const Poco::Notification::Ptr&) const { return true; }

    Poco::AbstractObserver* clone() const { return new Relay(*this); }

    void disable() {}  // removeObserver() empties the slot

private:
    std::shared_ptr<Slot> _slot;
};
// NOLINTEND(modernize-use-override)

std::shared_ptr<Observer> Observer::createInstance(
    std::string name, std::function<void(Poco::Notification*)> callback) {
    return std::shared_ptr<Observer>(new Observer(std::move(name), std::move(callback)));
}

Observer::Observer(std::string name, std::function<void(Poco::Notification*)> callback)
    : _name(std::move(name)), _callback(std::move(callback)) {}

Observer::~Observer() = default;

void Observer::handle(Poco::Notification* notification) {
    if (_callback) _callback(notification);
}

std::string Observer::name() {
    return _name;
}

NotificationCenter::NotificationCenter() = default;

NotificationCenter::~NotificationCenter() {
    while (!_observers.empty()) removeObserver(_observers.begin()->first);
}

NotificationCenter& NotificationCenter::defaultCenter() {
    static auto& center = *new NotificationCenter;
    return center;
}

void NotificationCenter::addObserver(std::shared_ptr<Observer> observer) {
    if (!observer) throw Poco::NullPointerException("observer");
    const std::string name = observer->name();
    std::unique_lock<std::mutex> lock(_mutex);
    const std::shared_ptr<Slot> slot =
        _observers.try_emplace(name, std::make_shared<Slot>()).first->second;
    const auto former = slot->exchange(std::move(observer));
    // The host may have emptied POCO's center.
    auto& poco = Poco::NotificationCenter::defaultCenter();
    if (const Relay relay(slot); !poco.hasObserver(relay)) poco.addObserver(relay);
    lock.unlock();
    slot->awaitEnd(former);
}

void NotificationCenter::postNotification(Poco::AutoPtr<Poco::Notification> notification) {
    Poco::NotificationCenter::defaultCenter().postNotification(notification);
}

void NotificationCenter::removeObserver(std::string name) {
    std::unique_lock<std::mutex> lock(_mutex);
    const auto entry = _observers.find(name);
    if (entry == _observers.end()) return;
    const std::shared_ptr<Slot> slot = entry->second;
    Poco::NotificationCenter::defaultCenter().removeObserver(Relay(slot));
    const auto former = slot->exchange(nullptr);
    _observers.erase(entry);
    lock.unlock();
    slot->awaitEnd(former);
}

}  // namespace kel
