#pragma once

#include <Poco/Path.h>
#include <Poco/Task.h>

#include <list>
#include <string>

/// A long job: counts the log files in the folders below one folder. Can be cancelled.
class FolderScan : public Poco::Task {
public:
    explicit FolderScan(const std::string& folder);

    void runTask() override;

private:
    void scanAll();
    std::list<Poco::Path> subfolders() const;
    void scan(const Poco::Path& folder);

    const Poco::Path _root;
    std::list<std::string> _found;
    int _unreadable = 0;
};
