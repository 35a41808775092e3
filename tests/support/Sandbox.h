#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

/// A fresh folder that any user may enter; removed with all it holds by the destructor.
struct TempFolder {
    TempFolder() { ::chmod(path.c_str(), 0755); }
    ~TempFolder() { std::filesystem::remove_all(path); }

    /// Parents included. Returns the full path.
    std::string write(const std::string& name, const std::string& content = "",
                      ::mode_t mode = 0644) const {
        const std::filesystem::path file = path / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << content;
        ::chmod(file.c_str(), mode);
        return file;
    }

    const std::filesystem::path path{::mkdtemp(std::string("/tmp/kel-test-XXXXXX").data())};
};

/// Calls `action` without root's rights, if the test has them.
template <typename Action>
void unprivileged(Action&& action) {
    const ::uid_t uid = ::geteuid();
    if (uid == 0 && ::seteuid(65534) != 0) std::abort();
    action();
    if (::seteuid(uid) != 0) std::abort();
}
