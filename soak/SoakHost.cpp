// SoakHost MODULE STATE WAY BROKER   enters the state and ends in the given way.

#include <dlfcn.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace {

int childExits() {
    const pid_t child = ::fork();
    if (child == 0) std::exit(3);
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 3 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) return 2;
    const std::string way = argv[3];
    sigset_t terminate;
    ::sigemptyset(&terminate);
    ::sigaddset(&terminate, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &terminate, nullptr);
    void* module = ::dlopen(argv[1], RTLD_NOW);
    if (!module) return 2;
    using Enter = void(const char*, const char*);
    using Leave = void(bool);
    reinterpret_cast<Enter*>(::dlsym(module, "enter"))(argv[2], argv[4]);
    if (way == "exit") std::exit(0);
    if (way == "fork") return childExits();
    if (way == "SIGTERM") {
        ::kill(::getpid(), SIGTERM);
        int signal = 0;
        ::sigwait(&terminate, &signal);
    }
    if (way != "return") reinterpret_cast<Leave*>(::dlsym(module, "leave"))(way != "release");
    if (way == "dlclose") return ::dlclose(module);
    return 0;
}
