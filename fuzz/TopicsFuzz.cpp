// Filters and topics, a line each: the first line is a topic, the others are filters.

#include <algorithm>
#include <set>
#include <sstream>

#include "Fuzz.h"
#include "common/internal/mqtt/Subscriptions.h"
#include "common/internal/mqtt/Topics.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::istringstream lines(fuzz::textOf(data, size));
    std::string topic, line;
    std::getline(lines, topic);
    kel::Subscriptions subscriptions;
    std::set<std::string> filters;
    while (std::getline(lines, line)) {
        if (!kel::topics::isValidFilter(line)) continue;
        subscriptions.set(line, std::make_shared<const kel::SubscribedHandler>());
        filters.insert(line);
    }
    const bool expected =
        filters.contains(topic) || std::any_of(filters.begin(), filters.end(), [&](const auto& f) {
            const std::string stem = kel::topics::stem(f);
            return !stem.empty() && topic.find(stem) != topic.npos;
        });
    fuzz::check((subscriptions.find(topic) != nullptr) == expected, "who receives a topic");
    fuzz::check(subscriptions.upTo(subscriptions.mark()).size() == filters.size(), "the filters");
    if (kel::topics::isValidTopic(topic)) {
        fuzz::check(kel::topics::isValidFilter(topic), "a topic is a filter too");
    }
    for (const auto& filter : filters) fuzz::check(subscriptions.erase(filter), "erased once");
    fuzz::check(!subscriptions.find(topic), "nobody is left");
    return 0;
}
