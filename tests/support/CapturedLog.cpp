#include "CapturedLog.h"

#include <Poco/Logger.h>

#include <iostream>

struct CapturedLog::Collector : Poco::Channel {
    void log(const Poco::Message& message) override {
        const std::lock_guard<std::mutex> lock(mutex);
        messages.push_back(message);
        changed.notify_all();
    }

    // Those that contain `text`; the caller holds the mutex.
    std::vector<Poco::Message> matching(const std::string& text) const {
        std::vector<Poco::Message> found;
        for (const auto& m : messages) {
            if (m.getText().find(text) != std::string::npos) found.push_back(m);
        }
        return found;
    }

    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<Poco::Message> messages;  // guarded by mutex
};

CapturedLog::CapturedLog() : _collector(new Collector) {
    Poco::Logger::root().setLevel(Poco::Message::PRIO_TRACE);
    Poco::Logger::root().setChannel(_collector);
}

CapturedLog::~CapturedLog() {
    Poco::Logger::root().setChannel(nullptr);
    // Whoever was logging meanwhile has come to its end.
    const std::lock_guard<std::mutex> lock(_collector->mutex);
}

bool CapturedLog::await(const std::string& text, std::size_t count) {
    std::unique_lock<std::mutex> lock(_collector->mutex);
    const auto logged = [&] { return _collector->matching(text).size() >= count; };
    if (_collector->changed.wait_for(lock, std::chrono::seconds(20), logged)) return true;
    std::cerr << "not logged " << count << " times: " << text << "\n";
    for (const auto& m : _collector->messages) std::cerr << "  | " << m.getText() << "\n";
    return false;
}

std::size_t CapturedLog::count(const std::string& text) const {
    const std::lock_guard<std::mutex> lock(_collector->mutex);
    return _collector->matching(text).size();
}

Poco::Message CapturedLog::find(const std::string& text, std::size_t earlier) const {
    const std::lock_guard<std::mutex> lock(_collector->mutex);
    const auto found = _collector->matching(text);
    return found.size() <= earlier ? Poco::Message() : found[earlier];
}
