#pragma once

#include <string>

namespace kel {

/// `url` as a log may show it: "***" stands for user information, and for the values of query and
/// fragment parameters whose names look like those of secrets (secret, token, key, password, ...).
/// Takes any text, also one that is no URL. Threads: any.
std::string maskedUrl(const std::string& url);

}  // namespace kel
