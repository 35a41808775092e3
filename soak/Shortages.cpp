// What the whole process, its shared libraries included, allocates and begins threads with. A file
// of its own: where compilers see both sides of an allocation they take it for a wrong one.

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

std::atomic<long> untilFailure{0};  // so many further allocations by `new`; 0: none fails
std::atomic<bool> threadsRefused{false};

void* operator new(std::size_t size) {
    const bool fails = untilFailure > 0 && --untilFailure == 0;
    void* const memory = fails ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (!memory) throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*run)(void*), void* argument) {
    if (threadsRefused) return EAGAIN;
    using Create = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static auto* const create = reinterpret_cast<Create*>(::dlsym(RTLD_NEXT, "pthread_create"));
    return create(thread, attributes, run, argument);
}
