// Progress.cpp - the task manager calls its observers on the tasks' threads. A task reports its
// progress with its own lock held: observers must not ask it for its progress in turn.

#include "Progress.h"

#include <Poco/NObserver.h>
#include <Poco/Task.h>

#include <cstdio>
#include <iostream>

#if defined(_WIN32)
#include <io.h>
#define isatty _isatty
#define fileno _fileno
#else
#include <unistd.h>
#endif

namespace {

constexpr int kBarWidth = 40;

std::string bar(float progress) {
    const auto filled = static_cast<std::size_t>(progress * kBarWidth);
    return "[" + std::string(filled, '#') + std::string(kBarWidth - filled, ' ') + "]";
}

int percent(float progress) {
    return static_cast<int>(progress * 100);
}

}  // namespace

Progress::Progress(kel::TaskManager& tasks)
    : _tasks(tasks), _terminal(isatty(fileno(stdout)) != 0) {
    using Poco::NObserver;
    _tasks.addObserver(
        NObserver<Progress, Poco::TaskProgressNotification>(*this, &Progress::onProgress));
    _tasks.addObserver(
        NObserver<Progress, Poco::TaskFinishedNotification>(*this, &Progress::onFinished));
}

Progress::~Progress() {
    using Poco::NObserver;
    _tasks.removeObserver(
        NObserver<Progress, Poco::TaskProgressNotification>(*this, &Progress::onProgress));
    _tasks.removeObserver(
        NObserver<Progress, Poco::TaskFinishedNotification>(*this, &Progress::onFinished));
}

void Progress::onProgress(const Poco::AutoPtr<Poco::TaskProgressNotification>& notification) {
    const std::lock_guard<std::mutex> lock(_mutex);
    show(notification->task()->name(), notification->progress());
}

// POCO passes on ten reports a second at most; the last one may have been left out.
void Progress::onFinished(const Poco::AutoPtr<Poco::TaskFinishedNotification>& notification) {
    const std::lock_guard<std::mutex> lock(_mutex);
    const Poco::Task& task = *notification->task();
    if (_shown != task.name()) return;
    if (!task.isCancelled()) show(task.name(), 1);
    if (_terminal) std::cout << std::endl;
    _shown.clear();
    _quarter = 0;
}

void Progress::show(const std::string& name, float progress) {
    _shown = name;
    const std::string text = std::to_string(percent(progress)) + " %  " + name;
    if (_terminal) {
        std::cout << "\r" << bar(progress) << " " << text << "\033[K" << std::flush;
    } else if (const int quarter = percent(progress) / 25; quarter > _quarter) {
        _quarter = quarter;
        std::cout << text << std::endl;
    }
}
