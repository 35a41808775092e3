#pragma once

#include <Poco/JSON/Object.h>
#include <status_page/Host.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

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

    /// Subscribes and connects in the background.
    void start();

    /// Disconnects and logs the summary.
    void stop();

    /// Asks the peer for its state; without a connection it does nothing.
    void askPeer();

    // For the status page. The roles count: counters() is theirs.
    Poco::JSON::Object::Ptr description() const override;
    Poco::JSON::Object::Ptr connection() const override;
    const status_page::Traffic& traffic() const override { return _link->traffic(); }
    std::vector<status_page::Metric> metrics() const override;
    bool publish(const std::string& text, const std::string& topic, int qos) override;

protected:
    /// What the role sends along with each request.
    virtual void sayHello() {}

    /// Registers the role's own handlers.
    virtual void subscribe() = 0;

    /// Registers `method` of the role; the handler does nothing once the role has gone.
    template <typename Role, typename Message>
    void handle(const std::string& topic, int qos,
                void (Role::*method)(Message, const std::string&)) {
        auto call = [weak = weak_from_this(), method](Message message, const std::string& from) {
            if (const auto self = weak.lock()) (static_cast<Role&>(*self).*method)(message, from);
        };
        if constexpr (std::is_pointer_v<Message>) {
            _link->onRaw(topic, qos, call);
        } else {
            _link->onJson(topic, qos, call);
        }
    }

    bool send(const Poco::JSON::Object::Ptr& message, const std::string& topic, int qos);

    const Settings _settings;

private:
    void onRequest(const Poco::JSON::Object& request, const std::string& topic);
    void onTest(const Poco::JSON::Object&, const std::string&) {}
    void onAnswer(const Poco::JSON::Object& answer, const std::string& topic);
    bool isBusTopic(const std::string& topic) const;

    /// What is published to this topic comes back and does nothing.
    std::string testTopic() const { return _ownTopic + "/test"; }

    const std::string _ownTopic;
    const std::string _peerTopic;
    const std::shared_ptr<Link> _link;
    std::atomic<int> _asked{0};
    std::atomic<int> _answered{0};
};

}  // namespace edge
