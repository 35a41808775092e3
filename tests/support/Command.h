#pragma once

#include <signal.h>

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
    explicit Background(const std::string& line)
        : _output(::popen(("echo pid $$; exec " + line).c_str(), "r")),
          _process(std::stoi(lineAfter("pid "))) {}
    ~Background() {
        ::kill(_process, SIGKILL);
        ::pclose(_output);
    }
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    /// What follows `word` in the first line of its output that begins with it.
    std::string lineAfter(const std::string& word) {
        char line[512];
        while (std::fgets(line, sizeof line, _output)) {
            const std::string text(line);
            if (text.starts_with(word))
                return text.substr(word.size(), text.size() - word.size() - 1);
        }
        throw std::runtime_error("ended before it wrote " + word);
    }

private:
    FILE* const _output;
    const pid_t _process;
};
