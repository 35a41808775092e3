#pragma once

#include <string>

namespace kel::topics {

/// Whether messages on `topic` are logged one by one.
bool isBus(const std::string& topic);

/// Whether `text`, a topic or an "api" member, marks a kind that is never handed on.
bool marksDroppedKind(const std::string& text);

/// Whether the wildcard `filter` receives `topic`: the part before its first "/#", or else its
/// first "/+", is not empty and occurs anywhere in the topic. Never for a filter without either.
bool filterCovers(const std::string& filter, const std::string& topic);

/// Whether a broker accepts a message on `topic`: not empty, no wildcard, no NUL. A broker ends
/// the connection otherwise.
bool isValidTopic(const std::string& topic);

/// Whether a broker accepts a subscription to `filter`: not empty, no NUL, wildcards only as whole
/// levels and "#" only as the last. A broker ends the connection otherwise, again after each
/// reconnect.
bool isValidFilter(const std::string& filter);

}  // namespace kel::topics
