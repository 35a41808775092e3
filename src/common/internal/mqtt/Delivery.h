#pragma once

#include <Poco/JSON/Object.h>

#include <functional>
#include <memory>

#include "Dispatcher.h"
#include "Message.h"
#include "Messaging.h"
#include "Subscriptions.h"

namespace kel {

/// One arrived message on its way: parsed once, filtered, and handed to the handler of its topic.
/// Threads: one after the other.
class Delivery : public Dispatcher::Item, public std::enable_shared_from_this<Delivery> {
public:
    Delivery(Messaging& messaging, std::shared_ptr<const Subscriptions> subscriptions,
             Message message);

    void handOut() override;
    bool tryHandOut() override;
    std::size_t bytes() const override { return _bytes; }

private:
    void prepare();
    void choose();
    std::function<void()> task();
    void run();
    void callHandler();

    Messaging& _messaging;
    const std::shared_ptr<const Subscriptions> _subscriptions;
    Message _message;
    const std::size_t _bytes;
    bool _prepared = false;
    bool _quiet = true;
    Poco::JSON::Object::Ptr _object;
    Subscriptions::Handler _handler;  // null if nobody gets it
};

}  // namespace kel
