#include "Tasks.h"

#include <Poco/DirectoryIterator.h>
#include <Poco/File.h>
#include <Poco/Format.h>
#include <common/Utils.h>

#include "Log.h"

namespace edge {

FolderScan::FolderScan(const std::string& folder)
    : Poco::Task("scan of " + folder), _root(Poco::Path::forDirectory(folder)) {}

void FolderScan::runTask() {
    try {
        scanAll();
    } catch (const Poco::Exception& exc) {
        poco_error(hostLog(), name() + ": " + exc.displayText());
    }
}

void FolderScan::scanAll() {
    const std::list<Poco::Path> folders = subfolders();
    float done = 0;
    for (const Poco::Path& folder : folders) {
        if (isCancelled()) return;
        scan(folder);
        report(++done / static_cast<float>(folders.size()));
    }
    poco_notice(hostLog(), Poco::format("%s: %z log files; %d folders could not be read to the end",
                                        name(), _found.size(), _unreadable));
}

void FolderScan::report(float progress) {
    setProgress(progress);  // for whoever watches the task manager
    const int quarters = static_cast<int>(progress * 4);
    if (quarters == _quarters) return;
    _quarters = quarters;
    poco_information(hostLog(), Poco::format("%s: %d %%", name(), quarters * 25));
}

std::list<Poco::Path> FolderScan::subfolders() const {
    std::list<Poco::Path> folders;
    for (Poco::DirectoryIterator entry(_root), end; entry != end; ++entry) {
        if (entry->exists() && entry->isDirectory()) folders.push_back(entry.path());
    }
    return folders;
}

void FolderScan::scan(const Poco::Path& folder) {
    try {
        kel::listFilesRecursively(folder, _found, kel::ListFileType::LogFile, "");
    } catch (const Poco::FileException&) {
        ++_unreadable;
    }
}

}  // namespace edge
