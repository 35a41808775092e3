#pragma once

#include <map>
#include <memory>
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
    void countTopic(const std::string& topic);
    void raiseAlarm(const std::string& sensor, double value);

    std::atomic<unsigned> _readings{0};
    std::atomic<unsigned> _odd{0};
    std::atomic<unsigned> _alarms{0};

    mutable std::mutex _mutex;
    std::map<std::string, unsigned> _byTopic;  // guarded by _mutex; kTopics at most
};

/// A microservice: asks the server for its state and takes its alarms.
class Microservice : public Node {
public:
    using Node::Node;

    Poco::JSON::Object::Ptr counters() const override;

private:
    void subscribe() override;

    void onAlarm(const Poco::JSON::Object& alarm, const std::string& topic);

    std::atomic<unsigned> _alarms{0};
};

/// A node of the role that the settings name.
std::shared_ptr<Node> makeNode(const Settings& settings);

}  // namespace edge
