#pragma once

#include <Poco/Notification.h>
#include <Poco/Timestamp.h>

#include <mutex>
#include <string>

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
