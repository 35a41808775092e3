#pragma once

// The one place that holds the version; CMake reads it from here.
#define KEL_VERSION_MAJOR 1
#define KEL_VERSION_MINOR 1
#define KEL_VERSION_PATCH 0

#include "Export.h"

/// One number to compare: 10203 for 1.2.3.
#define KEL_VERSION (KEL_VERSION_MAJOR * 10000 + KEL_VERSION_MINOR * 100 + KEL_VERSION_PATCH)

namespace kel {

/// Version of the library that the process has loaded, "1.2.3"; the macros tell the one whose
/// headers the caller was compiled with. Valid as long as the library is loaded. Threads: any.
KEL_API const char* version() noexcept;

}  // namespace kel
