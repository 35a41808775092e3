#pragma once

#include <Poco/JSONString.h>
#include <Poco/Logger.h>
#include <common/Logger.h>

#include <string>

namespace edge {

/// The process's logger. Look it up anew for each line, and log with POCO's macros, which add file
/// and line: poco_information(hostLog(), "text").
inline Poco::Logger& hostLog() {
    return Poco::Logger::get(kel::logName());
}

/// Text that came over the network, quoted and escaped, so that it cannot forge lines or colours.
inline std::string quoted(const std::string& text) {
    return Poco::toJSON(text);
}

}  // namespace edge
