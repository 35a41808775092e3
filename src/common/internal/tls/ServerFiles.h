#pragma once

#include <string>

namespace kel::tls {

/// The setting's text with its references filled in. ${application.configDir} (with a final
/// separator) and ${application.name} are filled in also where the host has not set these keys.
/// @throws Poco::InvalidArgumentException  a reference leads back to itself; the text names the
/// key.
std::string expandedSetting(const std::string& key, const std::string& otherwise = "");

}  // namespace kel::tls
