#pragma once

#include <cstddef>
#include <new>
#include <string>
#include <vector>

#include "../platform/Platform.h"

namespace kel {

/// An allocator for blocks that come and go by the thousand while a queue is long: large ones are
/// pages of their own, so that a burst of lines does not leave the heap of the process larger.
template <typename T>
struct PageAllocator {
    using value_type = T;

    PageAllocator() = default;
    template <typename U>
    PageAllocator(const PageAllocator<U>&) noexcept {}

    T* allocate(std::size_t count) {
        const std::size_t bytes = count * sizeof(T);
        return static_cast<T*>(isLarge(bytes) ? platform::allocatePages(bytes)
                                              : ::operator new(bytes));
    }

    void deallocate(T* block, std::size_t count) noexcept {
        const std::size_t bytes = count * sizeof(T);
        if (isLarge(bytes)) {
            platform::freePages(block, bytes);
        } else {
            ::operator delete(block);
        }
    }

    friend bool operator==(const PageAllocator&, const PageAllocator&) { return true; }

private:
    static bool isLarge(std::size_t bytes) { return bytes >= std::size_t{16} << 10; }
};

using PagedText = std::basic_string<char, std::char_traits<char>, PageAllocator<char>>;

template <typename T>
using PagedVector = std::vector<T, PageAllocator<T>>;

}  // namespace kel
