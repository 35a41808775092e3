#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

namespace kel {

/// A message that has arrived, in memory of our own.
struct Message {
    struct Free {
        void operator()(char* memory) const { std::free(memory); }
    };
    using Payload = std::unique_ptr<char, Free>;

    /// Never null, so that an empty payload is one too.
    static Payload copyOf(const char* bytes, std::size_t length) {
        Payload copy(static_cast<char*>(std::malloc(length == 0 ? 1 : length)));
        if (!copy) throw std::bad_alloc();
        if (length > 0) std::memcpy(copy.get(), bytes, length);
        return copy;
    }

    std::size_t bytes() const { return topic.size() + length; }

    std::string topic;
    Payload payload;
    std::size_t length = 0;  // of the payload, in bytes
    int qos = 0;
};

}  // namespace kel
