#pragma once

#include <string>

namespace kel::topics {

/// Whether messages on `topic` are logged one by one.
bool isBus(const std::string& topic);

/// Whether `text`, a topic or an "api" member, marks a kind that is never handed on.
bool marksDroppedKind(const std::string& text);

/// What a topic has to contain, anywhere, to be received by the wildcard `filter`: the part before
/// its first "/#", or else its first "/+". Empty for a filter that receives nothing in that way.
std::string stem(const std::string& filter);

/// Whether a broker accepts a message on `topic`: not empty, no wildcard, no NUL. A broker ends
/// the connection otherwise.
bool isValidTopic(const std::string& topic);

/// Whether a broker accepts a subscription to `filter`: not empty, no NUL, wildcards only as whole
/// levels and "#" only as the last. A broker ends the connection otherwise, again after each
/// reconnect.
bool isValidFilter(const std::string& filter);

}  // namespace kel::topics
