#pragma once

#include <Poco/Path.h>

#include <string>

namespace kel::paths {

/// The running executable.
Poco::Path executable();

/// The directory "kelhost" below one of POCO's home directories, which may come without a final
/// separator.
Poco::Path applicationDirectory(const std::string& home);

}  // namespace kel::paths
