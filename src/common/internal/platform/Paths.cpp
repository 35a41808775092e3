#include "Paths.h"

#include "Platform.h"

namespace kel::paths {

Poco::Path executable() {
    return Poco::Path(platform::executablePath());
}

Poco::Path applicationDirectory(const std::string& home) {
    return Poco::Path::forDirectory(home).pushDirectory("kelhost");
}

std::filesystem::path forStandardLibrary(const std::string& path) {
    return std::u8string(path.begin(), path.end());
}

}  // namespace kel::paths
