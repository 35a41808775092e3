#pragma once

#include <Poco/Timer.h>

#include <array>
#include <functional>
#include <memory>

namespace kel {

/// Makes a report at once and then every period, on a thread of a pool of their own. A report may
/// overlap with two earlier ones: while those are still under way, it is left out.
/// Threads: constructed and destroyed by one at a time.
class Keepalive {
public:
    /// Kept by whatever is still under way of a report.
    using Ticket = std::shared_ptr<const void>;
    using Report = std::function<void(const Ticket&)>;

    /// @param period  in milliseconds.
    /// @param report  what it throws ends in POCO's error handler, and reports go on.
    Keepalive(long period, Report report);

    /// Waits for a call of `report` in progress. Must not be called from one.
    ~Keepalive();

    Keepalive(const Keepalive&) = delete;
    Keepalive& operator=(const Keepalive&) = delete;

    /// Joins the threads of all that have been destroyed.
    static void joinThreads();

private:
    void onTimer(Poco::Timer& timer);

    const Report _report;
    // The timer's thread only. A peer that drips its reply holds a thread for as long as it likes:
    // two, not one more each time. With one only, an endpoint that answers after a period would get
    // every second report.
    std::array<std::weak_ptr<const void>, 2> _underWay;
    Poco::Timer _timer;
};

}  // namespace kel
