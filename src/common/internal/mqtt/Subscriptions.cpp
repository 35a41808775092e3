#include "Subscriptions.h"

#include <utility>

#include "Topics.h"

namespace kel {

// In the next three a handler that is replaced or removed is destroyed without the lock: what it
// holds may call back in here.

void Subscriptions::set(const std::string& filter, Handler handler) {
    std::string stem = topics::stem(filter);
    const std::lock_guard<std::mutex> lock(_mutex);
    Entry& entry = _entries[filter];
    entry.handler.swap(handler);
    entry.stem = std::move(stem);
    entry.mark = ++_last;
}

bool Subscriptions::erase(const std::string& filter) {
    decltype(_entries)::node_type erased;
    const std::lock_guard<std::mutex> lock(_mutex);
    erased = _entries.extract(filter);
    return !erased.empty();
}

void Subscriptions::clear() {
    decltype(_entries) cleared;
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
