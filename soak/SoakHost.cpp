// SoakHost MODULE STATE WAY BROKER   enters the state, and ends in the given way.

#include <dlfcn.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    void* module = argc == 5 ? ::dlopen(argv[1], RTLD_NOW) : nullptr;
    if (!module) return 2;
    const std::string way = argv[3];
    sigset_t terminate;
    ::sigemptyset(&terminate);
    ::sigaddset(&terminate, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &terminate, nullptr);
    reinterpret_cast<void (*)(const char*, const char*)>(::dlsym(module, "enter"))(argv[2],
                                                                                   argv[4]);
    if (way == "return") return 0;
    if (way == "exit") std::exit(0);
    if (way == "fork") {
        if (::fork() == 0) std::exit(3);
        int status = 0;
        ::wait(&status);
        return WIFEXITED(status) && WEXITSTATUS(status) == 3 ? 0 : 1;
    }
    if (way == "SIGTERM") {
        ::kill(::getpid(), SIGTERM);
        int signal = 0;
        ::sigwait(&terminate, &signal);
    }
    reinterpret_cast<void (*)(bool)>(::dlsym(module, "leave"))(way != "release");
    return way == "dlclose" ? ::dlclose(module) : 0;
}
