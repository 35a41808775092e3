#pragma once

#include <Poco/JSON/Object.h>
#include <Poco/JSONString.h>
#include <status_page/Host.h>

#include <atomic>
#include <memory>
#include <string>

#include "Link.h"
#include "Settings.h"

namespace edge {

/// One process of the family: its connection, and the bus on which it asks its peer for its state
/// and answers the same question. The roles derive from it.
///
/// On the bus, requests go to <bus>/<role>/requests and answers to the topic that the request
/// names. An answer's "type" is "answer": a "response" would not reach a handler.
class Node : public status_page::Host, public std::enable_shared_from_this<Node> {
public:
    explicit Node(const Settings& settings);

    /// Connects in the background and subscribes after each connect.
    void start();

    /// Disconnects and logs what was counted.
    void stop();

    /// Asks the peer for its state; without a connection it does nothing.
    void askPeer();

    // For the status page. The roles count: counters() is theirs.
    Poco::JSON::Object::Ptr description() const override;
    Poco::JSON::Object::Ptr connection() const override;
    const status_page::Traffic& traffic() const override { return _traffic; }
    bool publish(const std::string& text, const std::string& topic, int qos) override;

protected:
    /// Subscribes to what the role handles, with handle().
    virtual void subscribe() = 0;

    /// Has `method` called for the messages on `topic`, as long as the node exists.
    template <typename Role>
    void handle(const std::string& topic, int qos,
                void (Role::*method)(const Poco::JSON::Object&, const std::string&)) {
        _link->client().Subscribe(
            [weak = weak_from_this(), method](const Poco::JSON::Object& message,
                                              const std::string& from) {
                const auto self = weak.lock();
                if (!self) return;
                self->_traffic.note(status_page::Traffic::kReceived, from, message);
                (static_cast<Role&>(*self).*method)(message, from);
            },
            topic, qos);
    }

    /// Text that came over the network, escaped, so that it cannot forge lines of the log or
    /// colours.
    static std::string quoted(const std::string& text) { return Poco::toJSON(text); }

    bool send(const Poco::JSON::Object::Ptr& message, const std::string& topic, int qos);

    const Settings _settings;

private:
    void subscribeAll();
    void onRequest(const Poco::JSON::Object& request, const std::string& topic);
    void onAnswer(const Poco::JSON::Object& answer, const std::string& topic);
    void onTest(const Poco::JSON::Object&, const std::string&) {}
    bool isBusTopic(const std::string& topic) const;

    /// What is published to this topic comes back and does nothing.
    std::string testTopic() const { return _ownTopic + "/test"; }

    const std::string _ownTopic;
    const std::string _peerTopic;
    const std::shared_ptr<Link> _link;
    status_page::Traffic _traffic;
    std::atomic<int> _asked{0};
    std::atomic<int> _answered{0};
};

}  // namespace edge
