#include "Outages.h"

#include <Poco/Format.h>
#include <common/NotificationCenter.h>

#include "Log.h"

namespace edge {

namespace {

const char* const kObserverName = "outages";

}  // namespace

Outages::Outages() {
    kel::NotificationCenter::defaultCenter().addObserver(kel::Observer::createInstance(
        kObserverName, [this](Poco::Notification* notification) { notice(notification); }));
}

// Once it is removed, no call is running any more.
Outages::~Outages() {
    kel::NotificationCenter::defaultCenter().removeObserver(kObserverName);
}

// Every observer sees every notification of the process.
void Outages::notice(Poco::Notification* notification) {
    const auto* link = dynamic_cast<LinkNotification*>(notification);
    if (link == nullptr) return;
    const std::lock_guard<std::mutex> lock(_mutex);
    if (link->up) {
        noticeUp(link->detail);
    } else {
        noticeLoss(link->detail);
    }
}

void Outages::noticeUp(const std::string& address) {
    if (!_lost) {
        poco_notice(hostLog(), "connected to " + address);
        return;
    }
    _lost = false;
    poco_notice(hostLog(), Poco::format("outage %d is over: connected to %s again after %.1f s",
                                        _count, address, _since.elapsed() / 1e6));
}

void Outages::noticeLoss(const std::string& cause) {
    _lost = true;
    _since.update();
    poco_warning(hostLog(), Poco::format("outage %d: lost the broker (%s)", ++_count,
                                         cause.empty() ? std::string("no cause given") : cause));
}

}  // namespace edge
