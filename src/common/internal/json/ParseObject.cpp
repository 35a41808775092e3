#include "ParseObject.h"

#include <Poco/JSON/JSONException.h>
#include <Poco/JSON/ParseHandler.h>
#include <Poco/JSON/Parser.h>

#include <sstream>

namespace kel {

namespace {

[[noreturn]] void refuse(const std::string& what, std::size_t limit) {
    throw Poco::JSON::JSONException(what + " than " + std::to_string(limit));
}

// Builds the tree as POCO's handler does, but counts each value before it is made. It is called
// from C++ alone, never from within the parser's C code: it may throw.
class CountingHandler : public Poco::JSON::ParseHandler {
public:
    explicit CountingHandler(std::size_t limit) : ParseHandler(false), _limit(limit) {}

    void startObject() override {
        count();
        ParseHandler::startObject();
    }
    void startArray() override {
        count();
        ParseHandler::startArray();
    }
    void value(int number) override { add(number); }
    void value(unsigned number) override { add(number); }
    void value(Poco::Int64 number) override { add(number); }
    void value(Poco::UInt64 number) override { add(number); }
    void value(const std::string& text) override { add(text); }
    void value(double number) override { add(number); }
    void value(bool flag) override { add(flag); }
    void null() override {
        count();
        ParseHandler::null();
    }

private:
    void count() {
        if (_count == _limit) refuse("more values", _limit);
        ++_count;
    }

    template <typename T>
    void add(const T& value) {
        count();
        ParseHandler::value(value);
    }

    const std::size_t _limit;
    std::size_t _count = 0;
};

}  // namespace

Poco::JSON::Object::Ptr parseJsonObject(const std::string& text, const JsonLimits& limits) {
    if (text.size() > limits.bytes) refuse("more bytes", limits.bytes);
    Poco::JSON::Parser parser(new CountingHandler(limits.values));
    parser.setDepth(limits.depth);
    return parser.parse(text).extract<Poco::JSON::Object::Ptr>();
}

TextPlace placeOfJsonError(const std::string& text) {
    std::istringstream in(text);
    try {
        Poco::JSON::Parser().parse(in);
    } catch (const Poco::Exception&) {
        // The caller knows what is wrong.
    }
    const std::streamoff taken = in.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::in);
    TextPlace place;
    for (std::streamoff i = 0; i + 1 < taken; ++i) {
        if (text[static_cast<std::size_t>(i)] == '\n') {
            ++place.line;
            place.column = 1;
        } else {
            ++place.column;
        }
    }
    return place;
}

}  // namespace kel
