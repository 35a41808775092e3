#include "Traffic.h"

#include <algorithm>
#include <ostream>
#include <streambuf>

#include "Text.h"

namespace status_page {

namespace {

constexpr std::size_t kMessages = 100;
constexpr std::size_t kTextLimit = 2000;  // bytes shown of a message
constexpr std::size_t kTopicLimit = 200;

// Takes the beginning of a text and refuses the rest, upon which the stream drops all that follows.
// So a message of many megabytes is not written out whole where only its beginning is shown.
class Beginning : public std::streambuf {
public:
    Beginning() { setp(_bytes, _bytes + sizeof _bytes); }

    const char* data() const { return _bytes; }
    std::size_t size() const { return static_cast<std::size_t>(pptr() - pbase()); }

private:
    char _bytes[kTextLimit + 1];  // one more tells that something was left out
};

Poco::Int64 secondOf(const Poco::Timestamp& time) {
    return time.epochMicroseconds() / Poco::Timestamp::resolution();
}

const char* nameOf(Traffic::Direction direction) {
    return direction == Traffic::kSent ? "sent" : "received";
}

}  // namespace

void Traffic::note(Direction direction, const std::string& topic, const char* text,
                   std::size_t length) {
    const Poco::Timestamp now;
    const std::string shownTopic = excerpt(topic, kTopicLimit);
    const std::string shownText = excerpt(text, length, kTextLimit);
    const std::lock_guard<std::mutex> lock(_mutex);
    const Poco::Int64 id = _totals[kReceived] + _totals[kSent] + 1;
    _messages.push_front({id, now, direction, shownTopic, shownText});
    if (_messages.size() > kMessages) _messages.pop_back();
    count(direction, secondOf(now));
}

void Traffic::note(Direction direction, const std::string& topic,
                   const Poco::JSON::Object& message) {
    Beginning text;
    std::ostream out(&text);
    message.stringify(out);
    note(direction, topic, text.data(), text.size());
}

void Traffic::count(Direction direction, Poco::Int64 second) {
    Second& place = _seconds[static_cast<std::size_t>(second) % _seconds.size()];
    if (place.number != second) place = {second, {}};
    ++place.counts[direction];
    ++_totals[direction];
}

Poco::JSON::Array::Ptr Traffic::lastMessages(std::size_t count) const {
    Poco::JSON::Array::Ptr list(new Poco::JSON::Array);
    const std::lock_guard<std::mutex> lock(_mutex);
    for (std::size_t i = 0; i < std::min(count, _messages.size()); ++i) {
        const Message& message = _messages[i];
        Poco::JSON::Object::Ptr entry(new Poco::JSON::Object);
        entry->set("id", message.id);
        entry->set("time", message.time.epochMicroseconds() / 1000);
        entry->set("direction", nameOf(message.direction));
        entry->set("topic", message.topic);
        entry->set("text", message.text);
        list->add(entry);
    }
    return list;
}

Poco::JSON::Object::Ptr Traffic::rates() const {
    const Poco::Int64 now = secondOf(Poco::Timestamp());
    Poco::JSON::Object::Ptr rates(new Poco::JSON::Object);
    const std::lock_guard<std::mutex> lock(_mutex);
    for (const Direction direction : {kReceived, kSent}) {
        rates->set(nameOf(direction), _totals[direction]);
        rates->set(std::string(nameOf(direction)) + "PerSecond", perSecond(direction, now));
    }
    return rates;
}

Poco::JSON::Array::Ptr Traffic::perSecond(Direction direction, Poco::Int64 now) const {
    Poco::JSON::Array::Ptr counts(new Poco::JSON::Array);
    for (Poco::Int64 second = now - kSeconds; second < now; ++second) {
        const Second& place = _seconds[static_cast<std::size_t>(second) % _seconds.size()];
        counts->add(place.number == second ? place.counts[direction] : 0u);
    }
    return counts;
}

}  // namespace status_page
