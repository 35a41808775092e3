#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

/// A fresh folder that any user may enter; removed with all it holds by the destructor.
class TempFolder {
public:
    TempFolder() {
        char folder[] = "/tmp/kel-test-XXXXXX";
        _path = ::mkdtemp(folder);
        ::chmod(folder, 0755);
    }
    ~TempFolder() { std::filesystem::remove_all(_path); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::filesystem::path& path() const { return _path; }

    std::string write(const std::string& name, const std::string& content = "",
                      ::mode_t mode = 0644) const {
        const std::string path = _path / name;
        std::ofstream(path) << content;
        ::chmod(path.c_str(), mode);
        return path;
    }

private:
    std::filesystem::path _path;
};

/// Gives up root's rights, if the test has them, while it exists.
class Unprivileged {
public:
    Unprivileged() : _uid(::geteuid()) {
        if (_uid == 0 && ::seteuid(65534) != 0) std::abort();
    }
    ~Unprivileged() {
        if (::seteuid(_uid) != 0) std::abort();
    }
    Unprivileged(const Unprivileged&) = delete;
    Unprivileged& operator=(const Unprivileged&) = delete;

private:
    ::uid_t _uid;
};
