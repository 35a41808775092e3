// A configuration file. One that loads is written, and loads again.

#include <Poco/Exception.h>

#include <fstream>
#include <sstream>

#include "Fuzz.h"
#include "common/Config.h"

namespace {

std::string store() {
    std::ostringstream text;
    kel::configInstance().save(text);
    return text.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Surroundings surroundings;
    if (kel::configPath().empty()) kel::loadConfig();
    const std::string before = store(), text = fuzz::textOf(data, size);
    std::ofstream(kel::configPath(), std::ios::binary) << text;
    kel::loadConfig();
    if (!kel::lastConfigError().empty()) {
        fuzz::check(store() == before, "a file that is refused changes the store");
        return 0;
    }
    const std::string loaded = store();
    try {
        kel::configInstance().getString("a.b", "");
        kel::configInstance().getInt("c[0].d", 0);
    } catch (const Poco::Exception&) {
        // A value of another kind, or one that refers to itself.
    }
    kel::saveConfig();
    kel::loadConfig();
    fuzz::check(kel::lastConfigError().empty(), "what was saved cannot be loaded");
    fuzz::check(store() == loaded, "what was saved is loaded as something else");
    return 0;
}
