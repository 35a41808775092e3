// Tls_openssl.cpp - TLS through POCO's NetSSL over OpenSSL.

#include "Tls.h"

#include <Poco/Net/NetSSL.h>
#include <Poco/Net/SSLException.h>
#include <Poco/Net/StreamSocket.h>
#include <openssl/crypto.h>

#include <mutex>
#include <optional>

#include "../../Tls.h"
#include "../net/ServerUri.h"
#include "../platform/Platform.h"
#include "../process/NeverDestroyed.h"
#include "Context.h"
#include "Settings.h"
#include "Sockets.h"

namespace kel {

namespace {

// ServerSocket takes an implementation of one's own only from a class derived from it.
struct SecureServerSocket : Poco::Net::ServerSocket {
    explicit SecureServerSocket(Poco::Net::SocketImpl* impl) : ServerSocket(impl, true) {}
};

tls::Settings announcedServerSettings() {
    tls::prepare();
    tls::Settings settings = tls::serverSettings();
    tls::warnOfUnsafe(settings);
    return settings;
}

struct Announced {
    std::mutex mutex;
    std::optional<tls::Settings> settings;  // guarded by mutex
};

// The client's settings are read for each request; the warnings are repeated only when they change.
tls::Settings announcedClientSettings() {
    static NeverDestroyed<Announced> announced;
    tls::Settings settings = tls::clientSettings();
    std::optional<tls::Settings> previous = settings;
    {
        const std::lock_guard<std::mutex> lock(announced->mutex);
        announced->settings.swap(previous);
    }
    if (previous != settings) tls::warnOfUnsafe(settings);
    return settings;
}

}  // namespace

Poco::Net::ServerSocket secureServerSocket(const Poco::Net::SocketAddress& address, int backlog) {
    SecureServerSocket socket(new tls::SecureServerSocketImpl(
        std::make_shared<tls::RenewedContext>(announcedServerSettings())));
    socket.bind(address, platform::reusesListeningAddress(), false);
    socket.listen(backlog);
    return socket;
}

Poco::AutoPtr<Poco::Net::Context> makeServerContext() {
    return tls::makeContext(announcedServerSettings());
}

namespace tls {

namespace {

// A connection to the first of the host's addresses that accepts one.
Poco::Net::StreamSocket connectedTo(const Poco::Net::Context::Ptr& context, const std::string& host,
                                    unsigned short port) {
    const auto addresses = addressesOfHost(host);
    for (std::size_t i = 0;; ++i) {
        try {
            Poco::Net::StreamSocket socket(new ClientConnection(context, host));
            socket.connect({addresses.at(i), port}, Poco::Timespan(2, 0));
            shakeHands(socket);
            return socket;
        } catch (const Poco::Net::SSLException&) {
            throw;
        } catch (const Poco::Exception&) {
            if (i + 1 == addresses.size()) throw;
        }
    }
}

// Threads of this library and of the MQTT library may still be speaking TLS when OpenSSL's own
// clean-up runs at exit, which would free what they use. It has to be switched off before anybody
// in the process uses OpenSSL, hence when the library is loaded.
[[maybe_unused]] const int withoutCleanUp = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);

}  // namespace

bool available() noexcept {
    return true;
}

// Poco::Net::uninitializeSSL() is never called, because it would unload OpenSSL's providers, which
// others in the process may be using.
void prepare() {
    static std::once_flag once;
    std::call_once(once, [] { Poco::Net::initializeSSL(); });
}

Poco::Net::StreamSocket clientSocket(const std::string& host) {
    prepare();
    return Poco::Net::StreamSocket(
        new ClientConnection(makeContext(announcedClientSettings(), host), host));
}

void shakeHands(const Poco::Net::StreamSocket& socket) {
    if (auto* const connection = dynamic_cast<Connection*>(socket.impl())) {
        connection->shakeHandsOnce();
    }
}

std::atomic<std::chrono::milliseconds>& handshakeTime() {
    static std::atomic<std::chrono::milliseconds> time{std::chrono::seconds(10)};
    return time;
}

std::string explainFailure(const MqttSecurity& security, const std::string& host,
                           unsigned short port) {
    prepare();
    try {
        const Poco::Net::Context::Ptr context = makeContext(mqttSettings(security), host);
        Poco::Net::StreamSocket probe = connectedTo(context, host, port);
        // From TLS 1.3 on a broker refuses a client's certificate only after the handshake.
        probe.setReceiveTimeout(Poco::Timespan(1, 0));
        char byte = 0;
        probe.receiveBytes(&byte, 1);
    } catch (const Poco::TimeoutException& exc) {
        return exc.message();  // empty: the broker waits for MQTT's first packet
    } catch (const Poco::Exception& exc) {
        return failureReason(exc);
    }
    return {};
}

}  // namespace tls

}  // namespace kel
