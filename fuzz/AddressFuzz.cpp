// What a host may give as a broker's address.

#include <Poco/Exception.h>

#include "Fuzz.h"
#include "common/internal/net/ServerUri.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::textOf(data, size);
    try {
        const std::string host = kel::hostOfServerUri(text);
        fuzz::check(host.size() <= text.size(), "a host that nobody named");
        kel::portOfServerUri(text);
    } catch (const Poco::SyntaxException&) {
        // The one way in which a text may be refused.
    }
    return 0;
}
