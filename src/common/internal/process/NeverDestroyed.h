#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace kel {

/// Holds an object whose destructor never runs. Everything process-wide is held like that, as a
/// function-local static, because threads of the library and of the host may still use it while
/// the process's static destructors run.
template <typename T>
class NeverDestroyed {
public:
    template <typename... Args>
    explicit NeverDestroyed(Args&&... args) {
        new (_storage) T(std::forward<Args>(args)...);
    }
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;

    T& operator*() noexcept { return *std::launder(reinterpret_cast<T*>(_storage)); }
    T* operator->() noexcept { return &**this; }

private:
    alignas(T) std::byte _storage[sizeof(T)];
};

}  // namespace kel
