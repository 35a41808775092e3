#pragma once

#include <Poco/Notification.h>
#include <Poco/Timestamp.h>

#include <mutex>
#include <string>
#include <utility>

namespace edge {

/// Posted to the notification center when the broker connection comes and when it is lost.
class LinkNotification : public Poco::Notification {
public:
    LinkNotification(bool isUp, std::string why) : up(isUp), detail(std::move(why)) {}

    const bool up;
    const std::string detail;  ///< the broker's address, or why the connection was lost
};

/// Watches the broker connection by its notifications, knowing nothing of who posts them, and
/// logs each loss and recovery.
class Outages {
public:
    Outages();
    ~Outages();
    Outages(const Outages&) = delete;
    Outages& operator=(const Outages&) = delete;

private:
    void notice(Poco::Notification* notification);
    void noticeUp(const std::string& address);
    void noticeLoss(const std::string& cause);

    std::mutex _mutex;
    // Guarded by _mutex.
    int _count = 0;
    bool _lost = false;
    Poco::Timestamp _since;
};

}  // namespace edge
