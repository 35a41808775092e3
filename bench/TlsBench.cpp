// What TLS costs, beside others that speak it: QoS 1 messages beside libmosquitto, a JSON route on
// a kept connection beside POCO's secure server, and a handshake with and without an earlier
// session.

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/SecureServerSocket.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/StreamCopier.h>
#include <common/Config.h>
#include <common/Library.h>
#include <common/MqttClient++.h>
#include <common/Tls.h>
#include <common/WebApiBasic.h>
#include <mosquitto.h>

#include <atomic>
#include <chrono>

#include "Await.h"
#include "Broker.h"
#include "Certificates.h"
#include "Rounds.h"

namespace {

using namespace Poco::Net;

constexpr int kMessages = 10000;
constexpr int kRequests = 3000;
constexpr int kHandshakes = 200;
const std::string kPayload = R"({"text":")" + std::string(180, 'x') + R"("})";
const std::string kReply = R"({"a":1,"b":"two"})";

double perSecond(int count, const std::function<void()>& work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    return count / took.count();
}

// ---- MQTT ---------------------------------------------------------------------------------------

class OurPublisher {
public:
    OurPublisher(const std::string& address, const std::string& authorities) {
        kel::MqttOptions options;
        options.authorities = authorities;
        _client = kel::MqttClient::createInstance(address, "ours", "", "", options);
        _client->SetDeliveryCompleteCallback([this](int) { ++_confirmed; });
        _client->Connect({}, {});
        bench::check(await([this] { return _client->PublishMessage("{}", "probe", 0, 0, 0); }),
                     "ours: not connected");
    }

    std::vector<double> run() {
        _confirmed = 0;
        return {perSecond(kMessages, [this] {
            for (int i = 0; i < kMessages; ++i) {
                bench::check(_client->PublishMessage(kPayload, "bench", 1, 0, 0), "ours: refused");
            }
            bench::check(await([this] { return _confirmed == kMessages; }), "ours: unconfirmed");
        })};
    }

private:
    std::atomic<int> _confirmed{0};
    std::shared_ptr<kel::MqttClient> _client;
};

class Mosquitto {
public:
    Mosquitto(int port, const std::string& authorities) : _client(mosquitto_new("m", true, this)) {
        if (!authorities.empty()) {
            mosquitto_tls_set(_client, authorities.c_str(), nullptr, nullptr, nullptr, nullptr);
        }
        mosquitto_int_option(_client, MOSQ_OPT_SEND_MAXIMUM, 10);
        mosquitto_int_option(_client, MOSQ_OPT_TCP_NODELAY, 1);
        mosquitto_connect_callback_set(_client, [](mosquitto*, void* self, int rc) {
            static_cast<Mosquitto*>(self)->_connected = rc == 0;
        });
        mosquitto_publish_callback_set(_client, [](mosquitto*, void* self, int) {
            ++static_cast<Mosquitto*>(self)->_confirmed;
        });
        bench::check(mosquitto_connect(_client, "localhost", port, 60) == 0, "mosquitto: connect");
        mosquitto_loop_start(_client);
        bench::check(await([this] { return _connected.load(); }), "mosquitto: not connected");
    }
    ~Mosquitto() {
        mosquitto_disconnect(_client);
        mosquitto_loop_stop(_client, false);
        mosquitto_destroy(_client);
    }

    std::vector<double> run() {
        _confirmed = 0;
        return {perSecond(kMessages, [this] {
            for (int i = 0; i < kMessages; ++i) {
                const int rc =
                    mosquitto_publish(_client, nullptr, "bench", static_cast<int>(kPayload.size()),
                                      kPayload.data(), 1, false);
                bench::check(rc == 0, "mosquitto: refused");
            }
            bench::check(await([this] { return _confirmed == kMessages; }),
                         "mosquitto: unconfirmed");
        })};
    }

private:
    mosquitto* const _client;
    std::atomic<bool> _connected{false};
    std::atomic<int> _confirmed{0};
};

void compareMqtt(const bench::Rounds& rounds, const Certificates& files) {
    const Broker plain;
    const Broker secure(Broker::Login::kAnonymous,
                        "certfile " + files["good.pem"] + "\nkeyfile " + files["good.key"] + "\n");
    OurPublisher ours("ssl://localhost:" + std::to_string(secure.port()), files["root.pem"]);
    OurPublisher inTheClear(plain.address(), "");
    Mosquitto theirs(secure.port(), files["root.pem"]);
    rounds.contest("10 in flight, 200 bytes, QoS 1", {"messages/s"}, [&] { return ours.run(); },
                   {{"libmosquitto over TLS", [&] { return theirs.run(); }, 0.6},
                    {"KelCommon without TLS", [&] { return inTheClear.run(); }, 0}});
}

// ---- HTTPS --------------------------------------------------------------------------------------

// Makes its reply as a host of the library does.
class JsonHandler : public HTTPRequestHandler {
    void handleRequest(HTTPServerRequest&, HTTPServerResponse& response) override {
        response.setChunkedTransferEncoding(true);
        response.setContentType("application/json");
        Poco::JSON::Object result;
        result.set("a", 1);
        result.set("b", "two");
        result.stringify(response.send());
    }
};

struct JsonHandlers : HTTPRequestHandlerFactory {
    HTTPRequestHandler* createRequestHandler(const HTTPServerRequest&) override {
        return new JsonHandler;
    }
};

class KeptConnection {
public:
    KeptConnection(Poco::UInt16 port, const Context::Ptr& context)
        : _session("localhost", port, context) {
        _session.setKeepAlive(true);
    }

    std::vector<double> run() {
        return {perSecond(kRequests, [this] {
            for (int i = 0; i < kRequests; ++i) get();
        })};
    }

private:
    void get() {
        HTTPRequest request("GET", "/json", HTTPMessage::HTTP_1_1);
        request.setKeepAlive(true);
        _session.sendRequest(request);
        HTTPResponse response;
        std::string body;
        Poco::StreamCopier::copyToString(_session.receiveResponse(response), body);
        bench::check(response.getStatus() == 200 && body == kReply, "wrong reply: " + body);
    }

    HTTPSClientSession _session;
};

// Handshakes in a row, each with the session of the first where `resumed`.
std::vector<double> shakeHands(Poco::UInt16 port, const Context::Ptr& context, bool resumed) {
    const SocketAddress address("127.0.0.1", port);
    Session::Ptr session;
    int reused = 0;
    const double rate = perSecond(kHandshakes, [&] {
        for (int i = 0; i < kHandshakes; ++i) {
            SecureStreamSocket socket(context, resumed ? session : Session::Ptr());
            socket.setPeerHostName("localhost");
            socket.connect(address);
            reused += socket.sessionWasReused() ? 1 : 0;
            if (!session) session = socket.currentSession();
        }
    });
    bench::check(reused == (resumed ? kHandshakes - 1 : 0),
                 "sessions resumed: " + std::to_string(reused));
    return {rate};
}

Context::Ptr clientContext(const Certificates& files, Context::Usage usage) {
    Context::Ptr context =
        new Context(usage, files["root.pem"], Context::VERIFY_STRICT, 9, false, "DEFAULT");
    context->enableSessionCache(true);
    return context;
}

void compareHttps(const bench::Rounds& rounds, const Certificates& files) {
    kel::configInstance().setString("openSSL.server.privateKeyFile", files["good.key"]);
    kel::configInstance().setString("openSSL.server.certificateFile", files["good.pem"]);
    kel::configInstance().setString("openSSL.server.verificationMode", "none");
    kel::configInstance().setBool("openSSL.server.cacheSessions", true);
    const auto web = kel::WebApiBasic::instance();
    web->apiRegist("/json", [](auto&, auto&, auto&, auto& result) {
        result.set("a", 1);
        result.set("b", "two");
    });
    const ServerSocket ourSocket = kel::secureServerSocket(SocketAddress("127.0.0.1", 0));
    web->start(ourSocket);

    const Context::Ptr serverContext =
        new Context(Context::SERVER_USE, files["good.key"], files["good.pem"], "",
                    Context::VERIFY_NONE, 9, false, "DEFAULT");
    const SecureServerSocket theirSocket(SocketAddress("127.0.0.1", 0), 64, serverContext);
    HTTPServer theirs(new JsonHandlers, theirSocket, new HTTPServerParams);
    theirs.start();

    const Context::Ptr context = clientContext(files, Context::CLIENT_USE);
    KeptConnection toOurs(ourSocket.address().port(), context);
    KeptConnection toTheirs(theirSocket.address().port(), context);
    rounds.contest("JSON route, one kept connection", {"requests/s"}, [&] { return toOurs.run(); },
                   {{"POCO's HTTPServer over TLS", [&] { return toTheirs.run(); }, 0.95}});

    Context::Ptr tls12 = clientContext(files, Context::TLSV1_2_CLIENT_USE);
    tls12->disableProtocols(Context::PROTO_TLSV1_3);  // whose sessions POCO's client cannot keep
    const Poco::UInt16 port = ourSocket.address().port();
    rounds.contest("TLS 1.2 handshakes, P-256, client and server", {"resumed/s"},
                   [&] { return shakeHands(port, tls12, true); },
                   {{"anew", [&] { return shakeHands(port, tls12, false); }, 0}});
    theirs.stop();
    web->stop();
}

}  // namespace

int main(int argc, char** argv) {
    mosquitto_lib_init();
    const int result = bench::run(argc, argv, [](const bench::Rounds& rounds) {
        const Certificates files;
        rounds.table("TLS", "QoS 1 with 10 in flight; HTTPS on loopback.");
        compareMqtt(rounds, files);
        compareHttps(rounds, files);
    });
    kel::stopLibrary();
    mosquitto_lib_cleanup();
    return result;
}
