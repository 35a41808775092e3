#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Notification.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "Export.h"

namespace kel {

/// A named callback for notifications. NotificationCenter::addObserver() registers it.
class KEL_API Observer {
public:
    /// @param name      the name to remove it by; one observer per name in a center.
    /// @param callback  gets each notification, valid during the call; to keep it longer, hold a
    ///                  Poco::AutoPtr made with `shared` true. Runs on the posting thread, on
    ///                  several at once if several post. May be empty: notifications are ignored
    ///                  then.
    static std::shared_ptr<Observer> createInstance(
        std::string name, std::function<void(Poco::Notification*)> callback);

    ~Observer();

    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;

    /// Calls the callback and leaves the reference count of `notification` alone.
    void handle(Poco::Notification* notification);

    /// The name under which a center knows the observer.
    std::string name();

private:
    Observer(std::string name, std::function<void(Poco::Notification*)> callback);

    std::string _name;
    std::function<void(Poco::Notification*)> _callback;
};

/// Observers by name on top of POCO's process-wide notification center: whatever is posted there,
/// here or straight through POCO, reaches all of them, and POCO's own observers too.
/// Threads: all operations may be called from any thread, also from a callback.
class KEL_API NotificationCenter {
public:
    NotificationCenter();

    /// Removes its observers.
    ~NotificationCenter();

    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    /// The process-wide instance. It is never replaced.
    static NotificationCenter& defaultCenter();

    /// Registers `observer` under its name and keeps it alive until it is removed. An earlier
    /// observer of that name is replaced in one step, as if by removeObserver(): each notification
    /// reaches one of the two.
    /// @throws Poco::NullPointerException  `observer` is empty.
    void addObserver(std::shared_ptr<Observer> observer);

    /// Calls every observer, on this thread and in the order of registration, before it returns.
    /// Observers added meanwhile do not get this notification. What a callback throws comes out
    /// here, and the observers after it are not called.
    /// @throws Poco::NullPointerException  `notification` is empty.
    void postNotification(Poco::AutoPtr<Poco::Notification> notification);

    /// Unregisters the observer `name`; nothing happens if there is none. Once this has returned no
    /// call of it begins, none is still running on another thread either, and what the callback
    /// holds has been destroyed unless the host keeps the Observer: what it uses, and the plug-in
    /// that its code is in, may be destroyed or unloaded. Hence the caller must not hold a lock
    /// that the callback takes. From inside any observer's callback it returns at once: a call that
    /// another thread has already started then runs to its end, and two callbacks may remove each
    /// other.
    void removeObserver(std::string name);

private:
    class Slot;
    class Relay;

    std::mutex _mutex;
    std::unordered_map<std::string, std::shared_ptr<Slot>> _observers;  // guarded by _mutex
};

}  // namespace kel
