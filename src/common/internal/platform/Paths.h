#pragma once

#include <Poco/Path.h>

#include <filesystem>
#include <string>

namespace kel::paths {

/// The running executable.
Poco::Path executable();

/// The directory "kelhost" below one of POCO's home directories, which may come without a final
/// separator.
Poco::Path applicationDirectory(const std::string& home);

/// A path of ours, which is UTF-8, for the standard library, which may take text for something
/// else.
std::filesystem::path forStandardLibrary(const std::string& path);

}  // namespace kel::paths
