#pragma once

#include <map>
#include <mutex>

#include "Node.h"

namespace edge {

/// The main server: takes the plant's telemetry and raises alarms.
class Server : public Node {
public:
    using Node::Node;

    Poco::JSON::Object::Ptr counters() const override;

private:
    void subscribe() override;

    void onTelemetry(const Poco::JSON::Object& reading, const std::string& topic);
    void onPresence(const Poco::JSON::Object& presence, const std::string& topic);
    void countTopic(const std::string& topic);
    void raiseAlarm(const std::string& sensor, double value);

    std::atomic<unsigned> _readings{0};
    std::atomic<unsigned> _odd{0};
    std::atomic<unsigned> _alarms{0};
    std::atomic<unsigned> _presences{0};

    mutable std::mutex _mutex;
    std::map<std::string, unsigned> _byTopic;  // guarded by _mutex; kTopics at most
};

}  // namespace edge
