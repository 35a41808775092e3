// NotificationCenter.cpp - named observers in POCO's notification center.
//
// POCO's own Observer hands its method a reference that the method must release, and calls out with
// its lock held, so that two callbacks that remove each other deadlock. So POCO gets a Relay of
// ours, which leads to the Slot of a name; the slot holds the observer of the moment. A post that
// POCO has already begun meets the slot, hence an observer that was just removed or replaced there.
//
// state                             who may touch it         under
// _observers of a center            any thread               its _mutex
// POCO's list of relays             any thread               POCO's own lock
// observer and calls of a slot      any thread               the slot's _mutex
// callbackDepth                     its own thread           nothing
//
// Locks are taken in this order. None is held while a callback runs, while what a callback holds is
// destroyed, or while somebody waits for a callback to end.

#include "NotificationCenter.h"

#include <Poco/AbstractObserver.h>
#include <Poco/Exception.h>
#include <Poco/NotificationCenter.h>

#include <chrono>
#include <optional>
#include <utility>

#include "internal/process/NeverDestroyed.h"
#include "internal/process/WorkInProgress.h"

namespace kel {

namespace {

// Callbacks that this thread is in: it must not wait for one to end.
thread_local int callbackDepth = 0;

}  // namespace

class NotificationCenter::Slot {
public:
    struct Target {
        std::shared_ptr<Observer> observer;
        std::shared_ptr<WorkInProgress> calls;
    };

    /// Puts `observer` (empty for none) in the place of the one before, which gets no more calls.
    Target exchange(std::shared_ptr<Observer> observer) {
        Target next{std::move(observer), std::make_shared<WorkInProgress>()};
        const std::lock_guard<std::mutex> lock(_mutex);
        return std::exchange(_target, std::move(next));
    }

    void deliver(Poco::Notification* notification) {
        Call call(*this);
        if (call.observer()) call.observer()->handle(notification);
    }

private:
    // One call of the observer of the moment, if there is one.
    class Call {
    public:
        explicit Call(Slot& slot) {
            const std::lock_guard<std::mutex> lock(slot._mutex);
            if (!slot._target.observer) return;
            _target = slot._target;
            _counted.emplace(*_target.calls);
            ++callbackDepth;
        }

        // Whoever waits for the end of this call has the last reference to the observer from then
        // on: what its callback holds must not be destroyed here when the wait is over.
        ~Call() {
            if (!_counted) return;
            _target.observer.reset();
            --callbackDepth;
            _counted.reset();
        }

        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

        Observer* observer() const { return _target.observer.get(); }

    private:
        Target _target;
        std::optional<WorkInProgress::Item> _counted;
    };

    std::mutex _mutex;
    Target _target;  // guarded by _mutex
};

namespace {

// Returns once none of `calls` runs; at once inside a callback.
void awaitEnd(const WorkInProgress& calls) {
    if (callbackDepth > 0) return;
    while (!calls.awaitNone(std::chrono::hours(1))) {
        // A callback takes as long as its host lets it.
    }
}

}  // namespace

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
    static NeverDestroyed<NotificationCenter> center;
    return *center;
}

void NotificationCenter::addObserver(std::shared_ptr<Observer> observer) {
    if (!observer) throw Poco::NullPointerException("observer");
    const std::string name = observer->name();
    std::unique_lock<std::mutex> lock(_mutex);
    const std::shared_ptr<Slot> slot =
        _observers.try_emplace(name, std::make_shared<Slot>()).first->second;
    const Slot::Target former = slot->exchange(std::move(observer));
    // The host may have emptied POCO's center.
    auto& poco = Poco::NotificationCenter::defaultCenter();
    if (const Relay relay(slot); !poco.hasObserver(relay)) poco.addObserver(relay);
    lock.unlock();
    if (former.observer) awaitEnd(*former.calls);
}

void NotificationCenter::postNotification(Poco::AutoPtr<Poco::Notification> notification) {
    if (!notification) throw Poco::NullPointerException("notification");
    Poco::NotificationCenter::defaultCenter().postNotification(notification);
}

void NotificationCenter::removeObserver(std::string name) {
    std::unique_lock<std::mutex> lock(_mutex);
    const auto entry = _observers.find(name);
    if (entry == _observers.end()) return;
    const std::shared_ptr<Slot> slot = entry->second;
    Poco::NotificationCenter::defaultCenter().removeObserver(Relay(slot));
    const Slot::Target former = slot->exchange(nullptr);
    _observers.erase(entry);
    lock.unlock();
    if (former.observer) awaitEnd(*former.calls);
}

}  // namespace kel
