#pragma once

#include <cstddef>
#include <string>

namespace status_page {

/// The first `limit` bytes of text from outside, fit to be shown: valid UTF-8, with an ellipsis
/// where something was left out. It may still hold markup and control characters.
std::string excerpt(const char* text, std::size_t length, std::size_t limit);

inline std::string excerpt(const std::string& text, std::size_t limit) {
    return excerpt(text.data(), text.size(), limit);
}

}  // namespace status_page
