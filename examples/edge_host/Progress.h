#pragma once

#include <Poco/TaskNotification.h>
#include <common/ThreadPool.h>

#include <mutex>
#include <string>

/// Shows the progress of a manager's tasks on standard output: as a bar on a terminal, else as a
/// plain line per quarter. Tasks that report none are not shown.
class Progress {
public:
    explicit Progress(kel::TaskManager& tasks);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    void onProgress(const Poco::AutoPtr<Poco::TaskProgressNotification>& notification);
    void onFinished(const Poco::AutoPtr<Poco::TaskFinishedNotification>& notification);
    void show(const std::string& name, float progress);

    kel::TaskManager& _tasks;
    const bool _terminal;

    std::mutex _mutex;
    // Guarded by _mutex.
    std::string _shown;  // the task shown last; "" if it has ended
    int _quarter = 0;
};
