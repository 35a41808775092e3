#include "Child.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "Await.h"

Child::Child(const std::string& executable, const std::vector<std::string>& arguments) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    _input = ends[1];
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
    std::vector<std::string> words{executable};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    const int failed =
        ::posix_spawn(&_pid, executable.c_str(), &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(ends[0]);
    if (failed != 0) throw std::runtime_error("cannot start " + executable);
}

Child::~Child() {
    if (_input >= 0) ::close(_input);
    if (reap()) return;
    ::kill(_pid, SIGKILL);
    ::waitpid(_pid, nullptr, 0);
}

void Child::send(const std::string& text) {
    if (::write(_input, text.data(), text.size()) < 0) throw std::runtime_error("write");
    ::close(_input);
    _input = -1;
}

bool Child::running() {
    return !reap();
}

int Child::awaitSignal() {
    if (!await([this] { return reap(); })) return -1;
    return WIFSIGNALED(_status) ? WTERMSIG(_status) : 0;
}

bool Child::reap() {
    if (!_ended) _ended = ::waitpid(_pid, &_status, WNOHANG) == _pid;
    return _ended;
}
