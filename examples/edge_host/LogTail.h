#pragma once

#include <Poco/JSON/Array.h>

#include <cstddef>

/// The last lines of this process's newest log file, at most `count` of them and 64 KiB, the oldest
/// first. Empty if there is none or it cannot be read. Threads: any.
Poco::JSON::Array::Ptr logTail(std::size_t count);
