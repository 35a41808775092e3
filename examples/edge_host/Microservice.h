#pragma once

#include "Node.h"

namespace edge {

/// A microservice: says that it is there, asks the server for its state and takes its alarms.
class Microservice : public Node {
public:
    using Node::Node;

    Poco::JSON::Object::Ptr counters() const override;

private:
    void sayHello() override;
    void subscribe() override;

    void onAlarm(MQTTClient_message* alarm, const std::string& topic);

    std::atomic<unsigned> _alarms{0};
};

}  // namespace edge
