// Usage: UnloadHost PLUGIN BROKER-ADDRESS [LIBRARY...]   loads the plug-in, starts all of its
// parts, stops them while a client holds its HTTP connection open, starts and stops them again, and
// unloads the plug-in; all of that twice. The further libraries stay loaded throughout.
//
// It links nothing of the project, so that the library is really unloaded. It prints how long each
// step took, and ends with 0 if every start succeeded, the client's connection was closed by each
// stop, and no thread was left behind by either unloading.

#ifdef _WIN32
#include <winsock2.h>
// Needs winsock2.h before it.
#include <windows.h>
// Needs windows.h before it.
#include <tlhelp32.h>
#else
#include <arpa/inet.h>
#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

// --- The system ----------------------------------------------------------------------------------

#ifdef _WIN32

using Socket = SOCKET;

void* loadLibrary(const char* path) {
    return ::LoadLibraryA(path);
}

void unloadLibrary(void* library) {
    ::FreeLibrary(static_cast<HMODULE>(library));
}

void* find(void* library, const char* name) {
    return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(library), name));
}

std::size_t threads() {
    std::size_t count = 0;
    const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL on = ::Thread32First(snapshot, &entry); on; on = ::Thread32Next(snapshot, &entry)) {
        count += entry.th32OwnerProcessID == ::GetCurrentProcessId();
    }
    ::CloseHandle(snapshot);
    return count;
}

void startNetwork() {
    WSADATA data;
    ::WSAStartup(MAKEWORD(2, 2), &data);
}

void closeSocket(Socket socket) {
    ::closesocket(socket);
}

#else

using Socket = int;

void* loadLibrary(const char* path) {
    return ::dlopen(path, RTLD_NOW | RTLD_LOCAL);
}

void unloadLibrary(void* library) {
    ::dlclose(library);
}

void* find(void* library, const char* name) {
    return ::dlsym(library, name);
}

std::size_t threads() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

void startNetwork() {}

void closeSocket(Socket socket) {
    ::close(socket);
}

#endif

// --- The host ------------------------------------------------------------------------------------

void expect(bool holds, const std::string& what) {
    if (holds) return;
    std::cerr << "UnloadHost: " << what << std::endl;
    std::_Exit(1);
}

template <typename Call>
void timed(const std::string& what, Call&& call) {
    const auto begin = Clock::now();
    call();
    const auto taken = Clock::now() - begin;
    std::cout << what << ": "
              << std::chrono::duration_cast<std::chrono::milliseconds>(taken).count() << " ms"
              << std::endl;
}

// A connection that is kept alive after one request.
class KeptConnection {
public:
    explicit KeptConnection(unsigned short port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const auto* const target = reinterpret_cast<const sockaddr*>(&address);
        expect(::connect(_socket, target, sizeof(address)) == 0, "nobody serves");
        const std::string request = "GET /alive HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
        ::send(_socket, request.data(), static_cast<int>(request.size()), 0);
        expect(receive() > 0, "no reply");
    }
    ~KeptConnection() { closeSocket(_socket); }
    KeptConnection(const KeptConnection&) = delete;
    KeptConnection& operator=(const KeptConnection&) = delete;

    // Waits for the server to close it.
    void awaitEnd() {
        while (receive() > 0) continue;
    }

private:
    long receive() {
        char block[4096];
        return static_cast<long>(::recv(_socket, block, sizeof(block), 0));
    }

    const Socket _socket = ::socket(AF_INET, SOCK_STREAM, 0);
};

void startAndStop(void* plugin, const char* broker) {
    const auto start =
        reinterpret_cast<unsigned short (*)(const char*)>(find(plugin, "startEverything"));
    const auto stop = reinterpret_cast<void (*)()>(find(plugin, "stopEverything"));
    expect(start && stop, "no such plug-in");
    unsigned short port = 0;
    timed("start", [&] { port = start(broker); });
    expect(port != 0, "the plug-in does not start");
    KeptConnection client(port);
    timed("stop", stop);
    client.awaitEnd();
}

// A thread that has been joined may still be listed for a moment.
void expectNoMoreThreadsThan(std::size_t before) {
    const auto end = Clock::now() + std::chrono::seconds(20);
    while (threads() > before && Clock::now() < end) std::this_thread::yield();
    expect(threads() <= before, std::to_string(threads() - before) + " threads are left behind");
}

void loadAndUnload(const char* path, const char* broker) {
    void* plugin = nullptr;
    timed("load", [&] { plugin = loadLibrary(path); });
    expect(plugin, std::string("cannot load ") + path);
    for (int round = 0; round < 2; ++round) startAndStop(plugin, broker);
    timed("unload", [&] { unloadLibrary(plugin); });
}

}  // namespace

int main(int argc, char** argv) {
    expect(argc >= 3, "usage: UnloadHost PLUGIN BROKER-ADDRESS [LIBRARY...]");
    for (int i = 3; i < argc; ++i) {
        expect(loadLibrary(argv[i]), std::string("cannot load ") + argv[i]);
    }
    startNetwork();
    std::thread([] {}).join();  // with the first thread a sanitizer starts one of its own
    const std::size_t before = threads();
    for (int round = 0; round < 2; ++round) {
        loadAndUnload(argv[1], argv[2]);
        expectNoMoreThreadsThan(before);
    }
    std::cout << "ended as it should" << std::endl;
    return 0;
}
