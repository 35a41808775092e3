#pragma once

#include <cstddef>
#include <iterator>

namespace status_page {

/// A file of the folder "page" as it was when the host was built.
struct PageFile {
    const char* name;
    const unsigned char* bytes;
    std::size_t size;
};

extern const PageFile kPageFiles[];
extern const std::size_t kPageFileCount;

}  // namespace status_page
