#pragma once

#include <MQTTClient.h>
#include <Poco/JSON/Object.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace kel {

/// A host's handler: one of the two, or neither where the host gave an empty JSON handler.
struct SubscribedHandler {
    std::function<void(MQTTClient_message*, std::string)> raw;
    std::function<void(const Poco::JSON::Object&, std::string)> json;
};

/// The handlers of one client, by filter. Threads: any.
class Subscriptions {
public:
    using Handler = std::shared_ptr<const SubscribedHandler>;

    /// Orders what has been set.
    using Mark = unsigned long;

    /// Replaces the handler of exactly this filter.
    void set(const std::string& filter, Handler handler);

    /// @return whether there was one.
    bool erase(const std::string& filter);

    void clear();

    /// The handler of exactly this topic, else of the first filter that receives it, else null.
    Handler find(const std::string& topic) const;

    /// Everything that has been set so far.
    Mark mark() const;

    /// The filters that have not been set again since `mark`.
    std::vector<std::string> upTo(Mark mark) const;

private:
    struct Entry {
        Handler handler;
        std::string stem;
        Mark mark = 0;
    };

    mutable std::mutex _mutex;
    // Guarded by _mutex.
    Mark _last = 0;
    std::unordered_map<std::string, Entry> _entries;
};

}  // namespace kel
