#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace status_page {

/// The last lines of this process's newest log file as they stand there, at most `count` of them
/// and 64 KiB, the oldest first. Empty if there is none or it cannot be read. Threads: any.
std::vector<std::string> logTail(std::size_t count);

}  // namespace status_page
