#pragma once

#include <Poco/JSON/Object.h>

#include <string>

#include "Traffic.h"

namespace status_page {

/// What a process implements to have a status page: what the page shows, and what it can do.
/// Threads: all operations are called from any thread, several at a time.
class Host {
public:
    virtual ~Host() = default;

    /// Strings that say which process this is: "name" (letters, digits and "_"; the names of its
    /// numbers at "/metrics" begin with it), "version", "role", "clientId" and "testTopic", the
    /// topic that the page's form proposes.
    virtual Poco::JSON::Object::Ptr description() const = 0;

    /// The broker connection: "address" (without secrets), "connected" and "losses". What was
    /// published is known from the library, for all connections of the process.
    virtual Poco::JSON::Object::Ptr connection() const = 0;

    /// Whatever else the process counts: names and numbers that never fall.
    virtual Poco::JSON::Object::Ptr counters() const = 0;

    /// The messages that came and went on the bus.
    virtual const Traffic& traffic() const = 0;

    /// Publishes. May wait for the broker, and is called on one thread only, which is not a web
    /// thread; it must return once the connection has been closed.
    /// @return whether the message was accepted.
    virtual bool publish(const std::string& text, const std::string& topic, int qos) = 0;
};

}  // namespace status_page
