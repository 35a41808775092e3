// Tls_none.cpp - a library without TLS: every use of it is refused.

#include <Poco/Exception.h>
#include <Poco/RefCountedObject.h>

#include "../../Tls.h"
#include "Tls.h"

// Stands in for POCO's, so that a pointer to none can be spelled out.
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
