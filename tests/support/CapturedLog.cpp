#include "CapturedLog.h"

#include <Poco/Logger.h>

#include <algorithm>
#include <iostream>

class CapturedLog::Collector : public Poco::Channel {
public:
    void log(const Poco::Message& message) override {
        const std::lock_guard<std::mutex> lock(mutex);
        messages.push_back(message);
        changed.notify_all();
    }

    std::size_t count(const std::string& text) const {
        return static_cast<std::size_t>(std::count_if(
            messages.begin(), messages.end(),
            [&](const Poco::Message& m) { return m.getText().find(text) != std::string::npos; }));
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
    if (_collector->changed.wait_for(lock, std::chrono::seconds(20),
                                     [&] { return _collector->count(text) >= count; })) {
        return true;
    }
    std::cerr << "not logged " << count << " times: " << text << "\n";
    for (const auto& m : _collector->messages) std::cerr << "  | " << m.getText() << "\n";
    return false;
}

std::size_t CapturedLog::count(const std::string& text) const {
    const std::lock_guard<std::mutex> lock(_collector->mutex);
    return _collector->count(text);
}

Poco::Message CapturedLog::find(const std::string& text) const {
    const std::lock_guard<std::mutex> lock(_collector->mutex);
    for (const auto& m : _collector->messages) {
        if (m.getText().find(text) != std::string::npos) return m;
    }
    return {};
}

std::vector<std::string> CapturedLog::texts() const {
    const std::lock_guard<std::mutex> lock(_collector->mutex);
    std::vector<std::string> all;
    for (const auto& m : _collector->messages) all.push_back(m.getText());
    return all;
}
