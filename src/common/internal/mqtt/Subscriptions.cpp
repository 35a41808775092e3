#include "Subscriptions.h"

#include <utility>

#include "Topics.h"

namespace kel {

void Subscriptions::set(const std::string& filter, Handler handler) {
    std::string stem = topics::stem(filter);
    const std::lock_guard<std::mutex> lock(_mutex);
    _entries.insert_or_assign(filter, Entry{std::move(handler), std::move(stem), ++_last});
}

bool Subscriptions::erase(const std::string& filter) {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _entries.erase(filter) > 0;
}

// The handlers are destroyed without the lock: what they hold may call back in here.
void Subscriptions::clear() {
    std::unordered_map<std::string, Entry> cleared;
    const std::lock_guard<std::mutex> lock(_mutex);
    cleared.swap(_entries);
}

Subscriptions::Handler Subscriptions::find(const std::string& topic) const {
    const std::lock_guard<std::mutex> lock(_mutex);
    const auto exact = _entries.find(topic);
    if (exact != _entries.end()) return exact->second.handler;
    for (const auto& [filter, entry] : _entries) {
        if (!entry.stem.empty() && topic.find(entry.stem) != std::string::npos) {
            return entry.handler;
        }
    }
    return {};
}

Subscriptions::Mark Subscriptions::mark() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _last;
}

std::vector<std::string> Subscriptions::upTo(Mark mark) const {
    std::vector<std::string> filters;
    const std::lock_guard<std::mutex> lock(_mutex);
    for (const auto& [filter, entry] : _entries) {
        if (entry.mark <= mark) filters.push_back(filter);
    }
    return filters;
}

}  // namespace kel
