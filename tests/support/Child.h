#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

/// A process of the test's own, its standard input a pipe. Ended by the destructor.
class Child {
public:
    /// Runs `executable`; it is running when this returns.
    explicit Child(const std::string& executable, const std::vector<std::string>& arguments = {});
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    ::pid_t pid() const { return _pid; }

    /// Writes `text` to its standard input and closes that.
    void send(const std::string& text);

    bool running();

    /// Waits until it has ended.
    /// @return the signal that ended it, 0 for none, -1 if it still runs after 20 s.
    int awaitSignal();

private:
    bool reap();

    ::pid_t _pid = -1;
    int _input = -1;
    bool _ended = false;
    int _status = 0;
};
