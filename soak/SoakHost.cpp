// SoakHost MODULE STATE WAY BROKER   enters the state, and ends in the given way.

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

using Call = void(const char*, const char*);

int main(int argc, char** argv) {
    const auto threads = [] {
        const std::filesystem::directory_iterator all("/proc/self/task");
        return std::distance(begin(all), end(all));
    };
    const auto before = threads();
    void* module = argc == 5 ? ::dlopen(argv[1], RTLD_NOW) : nullptr;
    if (!module) return 2;
    const std::string way = argv[3];
    reinterpret_cast<Call*>(::dlsym(module, "enter"))(argv[2], argv[4]);
    if (way == "return") return 0;
    if (way == "exit") std::exit(0);
    if (way == "fork") {
        if (::fork() == 0) std::exit(3);
        int status = 0;
        ::wait(&status);
        return WIFEXITED(status) && WEXITSTATUS(status) == 3 ? 0 : 1;
    }
    reinterpret_cast<Call*>(::dlsym(module, "leave"))(argv[3], "");
    if (way != "dlclose") return 0;
    if (::dlclose(module) != 0) return 4;
    while (threads() > before) ::usleep(10'000);  // one in what is unloaded crashes before it ends
}
