#pragma once

#include <Poco/Util/JSONConfiguration.h>

namespace kel {

/// The process's settings, which hosts know as configInstance(). Created empty on first use and
/// never destroyed. Threads: creation is safe from any; else as POCO's.
Poco::Util::JSONConfiguration& configStore();

}  // namespace kel
