#pragma once

#include <Poco/Path.h>
#include <Poco/Task.h>

#include <functional>
#include <list>
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

/// A long job: counts the log files in the folders below one folder. Logs its progress by quarters
/// and can be cancelled between two folders.
class FolderScan : public Poco::Task {
public:
    explicit FolderScan(const std::string& folder);

    void runTask() override;

private:
    void scanAll();
    std::list<Poco::Path> subfolders() const;
    void scan(const Poco::Path& folder);
    void report(float progress);

    const Poco::Path _root;
    std::list<std::string> _found;
    int _unreadable = 0;
    int _quarters = 0;  // reported so far
};

}  // namespace edge
