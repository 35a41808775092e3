#pragma once

#include <atomic>
#include <list>
#include <mutex>
#include <string>

namespace kel {

/// A text that seldom changes and is read without a wait, also in a child that was forked while
/// another thread was setting it. Each text that it has held stays in memory, because somebody may
/// still be reading it. Held in a NeverDestroyed. Threads: any.
class PublishedText {
public:
    /// Empty before the first set(). The reference stays valid.
    const std::string& get() const noexcept { return *_current.load(); }

    void set(const std::string& text) {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (get() == text) return;
        _current = &_texts.emplace_back(text);
    }

private:
    // Made without asking for memory, so that a first reader needs none.
    std::mutex _mutex;
    std::list<std::string> _texts;  // guarded by _mutex; what it holds never changes
    const std::string _none;
    std::atomic<const std::string*> _current{&_none};
};

}  // namespace kel
