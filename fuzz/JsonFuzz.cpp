// JSON text to an object and back. What was written once is read again as the same.

#include "Fuzz.h"
#include "common/Utils.h"
#include "common/internal/json/ParseObject.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Surroundings surroundings;
    const std::string text = fuzz::textOf(data, size);
    const Poco::JSON::Object::Ptr object = kel::stringToJson(text);
    if (!object) {
        const kel::TextPlace place = kel::placeOfJsonError(text);
        fuzz::check(place.line >= 1 && place.column >= 1, "the place of the fault");
        return 0;
    }
    const std::string written = kel::jsonToString(object);
    const Poco::JSON::Object::Ptr again = kel::stringToJson(written);
    fuzz::check(again, "what was written cannot be read");
    fuzz::check(kel::jsonToString(again) == written, "what was written is read as something else");
    return 0;
}
