#pragma once

#include <Poco/JSON/Object.h>

#include <string>

/// The whole configuration as a JSON object in which every secret reads "***": what is kept under
/// a name such as "password" or "admin_params", and text that carries a secret (user:password@host,
/// secret=...). Threads: as kel::configInstance().
Poco::JSON::Object::Ptr settingsWithoutSecrets();

/// `text`, or "***" if it carries a secret.
std::string withoutSecrets(const std::string& text);
