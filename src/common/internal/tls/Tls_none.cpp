// Tls_none.cpp - stands for TLS in a library that is built without it, and refuses every use.

#include <Poco/Exception.h>
#include <Poco/RefCountedObject.h>

#include "../../Tls.h"
#include "Tls.h"

// Completes the type that the public header only declares: Poco::AutoPtr, even an empty one, needs
// a complete type. POCO's NetSSL, which has the real one, is not used here.
namespace Poco::Net {
class Context : public RefCountedObject {};
}  // namespace Poco::Net

namespace kel {

namespace {

const char* const kWithout = "KelCommon was built without TLS";

}  // namespace

Poco::Net::ServerSocket secureServerSocket(const Poco::Net::SocketAddress&, int) {
    throw Poco::NotImplementedException(kWithout);
}

Poco::AutoPtr<Poco::Net::Context> makeServerContext() {
    throw Poco::NotImplementedException(kWithout);
}

namespace tls {

bool available() noexcept {
    return false;
}

void prepare() {}

Poco::Net::StreamSocket clientSocket(const std::string&) {
    throw Poco::UnknownURISchemeException("https is not supported");
}

void shakeHands(const Poco::Net::StreamSocket&) {}

std::string systemAuthoritiesFile() {
    return {};
}

std::string explainFailure(const MqttSecurity&, const std::string&, unsigned short) {
    return kWithout;
}

}  // namespace tls

}  // namespace kel
