#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace status_page {

/// Publishes on a thread of its own, because a publish waits while the broker does not acknowledge,
/// and a thread that serves requests must not wait for that.
/// Bounds: kPlaces messages wait at most; none is taken while the one in progress has been waiting
/// for longer than kPatience.
class PublishQueue {
public:
    struct Message {
        std::string text;
        std::string topic;
        int qos = 0;
    };

    static constexpr std::size_t kPlaces = 32;
    static constexpr std::chrono::milliseconds kPatience{1000};

    /// @param publish  called on the queue's thread, for one message after the other; may wait.
    explicit PublishQueue(std::function<bool(const Message&)> publish);

    /// Waits for the publish in progress: close the connection first.
    ~PublishQueue();

    PublishQueue(const PublishQueue&) = delete;
    PublishQueue& operator=(const PublishQueue&) = delete;

    /// Never waits. @return whether the message was taken. Threads: any.
    bool offer(Message message);

    /// Takes no more and drops what has not been begun. Repeatable. Threads: any.
    void stop();

    /// Messages that wait, and those that were refused. Threads: any.
    std::size_t depth() const;
    unsigned refused() const;

private:
    using Clock = std::chrono::steady_clock;

    bool hasPlace() const;
    void run();

    const std::function<bool(const Message&)> _publish;

    mutable std::mutex _mutex;  // not held while a message is published
    std::condition_variable _changed;
    // Guarded by _mutex.
    std::deque<Message> _waiting;
    bool _stopped = false;
    bool _publishing = false;
    Clock::time_point _begun;  // of the publish in progress
    unsigned _refused = 0;

    std::thread _thread;
};

}  // namespace status_page
