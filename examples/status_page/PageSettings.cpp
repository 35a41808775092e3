#include "PageSettings.h"

#include <Poco/NumberFormatter.h>
#include <Poco/String.h>
#include <common/Config.h>

#include <random>

namespace status_page {

namespace {

// 256 random bits as 64 hexadecimal digits.
std::string randomKey() {
    constexpr int kWords = 8;  // of 32 bits
    std::random_device random;
    std::string key;
    for (int word = 0; word < kWords; ++word) key += Poco::NumberFormatter::formatHex(random(), 8);
    return Poco::toLower(key);
}

}  // namespace

bool PageSettings::makeKeys() {
    if (!key.empty() && !hookSecret.empty()) return false;
    if (key.empty()) key = randomKey();
    if (hookSecret.empty()) hookSecret = randomKey();
    kel::configInstance().setString("http.key", key);
    kel::configInstance().setString("http.hookSecret", hookSecret);
    return true;
}

}  // namespace status_page
