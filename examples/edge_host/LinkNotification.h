#pragma once

#include <Poco/Notification.h>

#include <string>
#include <utility>

/// Posted to the notification center when the broker connection comes and when it is lost.
class LinkNotification : public Poco::Notification {
public:
    LinkNotification(bool up, std::string detail) : up(up), detail(std::move(detail)) {}

    const bool up;
    const std::string detail;  ///< the broker's address, or why the connection was lost
};
