#pragma once

#include <Poco/Task.h>

#include <functional>
#include <string>
#include <utility>

namespace edge {

/// Calls a function every `interval` milliseconds until it is cancelled.
class Periodic : public Poco::Task {
public:
    Periodic(const std::string& name, long interval, std::function<void()> call)
        : Poco::Task(name), _interval(interval), _call(std::move(call)) {}

    void runTask() override {
        while (!sleep(_interval)) _call();
    }

private:
    const long _interval;
    const std::function<void()> _call;
};

}  // namespace edge
