#pragma once

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/Timestamp.h>

#include <array>
#include <deque>
#include <mutex>
#include <string>

namespace status_page {

/// The last messages that came and went on the bus, and how many there were in each of the last
/// seconds. However large and many they are, this keeps about 250 KiB at most.
/// Threads: all operations may be called from any thread.
class Traffic {
public:
    enum Direction { kReceived, kSent };

    void note(Direction direction, const std::string& topic, const char* text, std::size_t length);
    void note(Direction direction, const std::string& topic, const Poco::JSON::Object& message);

    /// At most `count` messages, the newest first: "id" (counted up from 1), "time" (milliseconds
    /// since 1970), "direction" ("received" or "sent"), "topic" and "text", the last two cut.
    Poco::JSON::Array::Ptr lastMessages(std::size_t count) const;

    /// "received" and "sent" since the start, and "receivedPerSecond" and "sentPerSecond" for the
    /// last 60 full seconds, the oldest first.
    Poco::JSON::Object::Ptr rates() const;

private:
    struct Message {
        Poco::Int64 id;
        Poco::Timestamp time;
        Direction direction;
        std::string topic;
        std::string text;
    };
    struct Second {
        Poco::Int64 number = 0;  // since 1970
        unsigned counts[2]{};    // by direction
    };

    static constexpr int kSeconds = 60;

    void count(Direction direction, Poco::Int64 second);
    Poco::JSON::Array::Ptr perSecond(Direction direction, Poco::Int64 now) const;

    mutable std::mutex _mutex;
    // Guarded by _mutex.
    std::deque<Message> _messages;  // the newest first
    Poco::Int64 _totals[2]{};
    std::array<Second, kSeconds + 1> _seconds;  // the last place is the current second's
};

}  // namespace status_page
