#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

/// Runs `line` in a shell, its errors in its output.
/// @return what it wrote. Throws std::runtime_error with that if it fails.
inline std::string shell(const std::string& line) {
    FILE* const pipe = ::popen(("exec 2>&1; " + line).c_str(), "r");
    if (!pipe) throw std::runtime_error("no shell");
    std::string output;
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) output += static_cast<char>(c);
    if (::pclose(pipe) != 0) throw std::runtime_error(line + "\n" + output);
    return output;
}

/// A process of the test's own, started by a shell line and ended by the destructor.
class Background {
public:
    explicit Background(const std::string& line) {
        int ends[2];
        if (::pipe(ends) != 0) throw std::runtime_error("no pipe");
        _output = ::fdopen(ends[0], "r");
        _process = ::fork();
        if (_process == 0) {
            ::dup2(ends[1], STDOUT_FILENO);
            ::close(ends[0]);
            ::execl("/bin/sh", "sh", "-c", ("exec " + line).c_str(), nullptr);
            ::_exit(127);
        }
        ::close(ends[1]);
    }
    ~Background() {
        ::kill(_process, SIGKILL);
        ::waitpid(_process, nullptr, 0);
        std::fclose(_output);
    }
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    /// What follows `word` in the first line of its output that begins with it.
    std::string lineAfter(const std::string& word) {
        char line[512];
        while (std::fgets(line, sizeof line, _output)) {
            const std::string text(line);
            if (text.compare(0, word.size(), word) == 0) {
                return text.substr(word.size(), text.find_last_not_of("\r\n") + 1 - word.size());
            }
        }
        throw std::runtime_error("ended before it wrote " + word);
    }

private:
    FILE* _output = nullptr;
    pid_t _process = -1;
};
