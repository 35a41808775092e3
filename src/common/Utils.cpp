#include "Utils.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/JSON/ParseHandler.h>
#include <Poco/JSON/Parser.h>

#include <array>
#include <cstdint>
#include <sstream>

#include "internal/Log.h"

namespace kel {

namespace {

constexpr UnitLog log("src/common/Utils");

// Line numbers that operators filter on.
constexpr int kStringifyFailedLine = 179;
constexpr int kParseFailedLine = 193;

constexpr std::array<std::uint32_t, 256> makeCrcTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < table.size(); ++i) {
        std::uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) ? 0xEDB88320u : 0u);
        table[i] = value;
    }
    return table;
}

constexpr std::array<std::uint32_t, 256> kCrcTable = makeCrcTable();

// Compact text, keys sorted.
std::string stringify(const Poco::JSON::Object& object) {
    std::ostringstream text;
    object.stringify(text, 0, -1);
    return text.str();
}

}  // namespace

Poco::JSON::Object::Ptr stringToJson(const std::string& text) {
    try {
        Poco::JSON::Parser parser(new Poco::JSON::ParseHandler(false));
        return parser.parse(text).extract<Poco::JSON::Object::Ptr>();
    } catch (const std::exception& exc) {
        log.error(std::string(exc.what()), kParseFailedLine);
        return {};
    }
}

std::string jsonToString(Poco::JSON::Object::Ptr obj) {
    if (!obj) return {};
    try {
        return stringify(*obj);
    } catch (const std::exception& exc) {
        log.error(Poco::format("JsonToString exception: %s", std::string(exc.what())),
                  kStringifyFailedLine);
        return {};
    }
}

unsigned int GetCRC32(unsigned int crc, unsigned char* buffer, int length) {
    std::uint32_t value = ~crc;
    for (; length != 0; --length) value = kCrcTable[(value ^ *buffer++) & 0xFF] ^ (value >> 8);
    return ~value;
}

}  // namespace kel

std::string makeJsonDefault(int code, std::string msg) {
    Poco::JSON::Object reply;
    reply.set("code", code);
    reply.set("msg", msg);
    return kel::stringify(reply);
}
