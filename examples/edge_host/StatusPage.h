#pragma once

#include <cstddef>

/// status.html as it was when the host was built.
extern const unsigned char kStatusPage[];
extern const std::size_t kStatusPageSize;
