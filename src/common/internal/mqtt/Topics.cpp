#include "Topics.h"

#include <algorithm>
#include <sstream>
#include <vector>

namespace kel::topics {

namespace {

constexpr std::size_t kLongest = 65535;  // bytes, in MQTT

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

bool isValidText(const std::string& text) {
    return !text.empty() && text.size() <= kLongest && text.find('\0') == std::string::npos;
}

std::vector<std::string> levels(const std::string& filter) {
    std::vector<std::string> all;
    std::istringstream in(filter + "/");
    in.exceptions(std::ios::badbit);  // else a failed allocation would end the loop
    for (std::string level; std::getline(in, level, '/');) all.push_back(level);
    return all;
}

}  // namespace

bool isBus(const std::string& topic) {
    return topic.rfind("/kelbus", 0) == 0;
}

bool marksDroppedKind(const std::string& text) {
    return contains(text, "heartBeat") || contains(text, "pushTelemetry");
}

std::string stem(const std::string& filter) {
    std::size_t end = filter.find("/#");
    if (end == std::string::npos) end = filter.find("/+");
    return end == std::string::npos ? std::string() : filter.substr(0, end);
}

bool isValidTopic(const std::string& topic) {
    return isValidText(topic) && topic.find_first_of("#+") == std::string::npos;
}

bool isValidFilter(const std::string& filter) {
    if (!isValidText(filter)) return false;
    const std::vector<std::string> all = levels(filter);
    const auto last = std::prev(all.end());
    return std::all_of(all.begin(), all.end(),
                       [](const std::string& level) {
                           return level.size() == 1 ||
                                  level.find_first_of("#+") == std::string::npos;
                       }) &&
           std::find(all.begin(), last, "#") == last;
}

}  // namespace kel::topics
