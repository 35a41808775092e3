// TLS against openssl's own client and server, and a real broker.

#include <Poco/StreamCopier.h>
#include <common/Config.h>
#include <common/HttpClient.h>
#include <common/Library.h>
#include <common/ThreadPool.h>
#include <common/Tls.h>
#include <common/WebApiBasic.h>
#include <common/internal/tls/Tls.h>
#include <gtest/gtest.h>

#include "Certificates.h"
#include "MqttFixture.h"
#include "RawHttp.h"

using kel::configInstance;
using kel::MqttOptions;

namespace {

const Poco::Net::SocketAddress kAnyPort("127.0.0.1", 0);
const std::string kJson = R"({"a":1})";
const std::string kUnknown = "unable to get local issuer certificate";

const Certificates& certificates() {
    static const Certificates made;
    return made;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// What the callback of a GET is called with, as "<status> <whether a page came>".
std::string get(const std::string& url) {
    std::string calls;
    kel::HttpClient::defaultHttpClient()->doHttpRequest(
        url, [&calls](auto status, std::istream& body) {
            std::string page;
            Poco::StreamCopier::copyToString(body, page);
            calls += std::to_string(status) + (page.empty() ? "" : " page");
        });
    EXPECT_TRUE(await([] { return kel::ThreadPool::defaultPool().pendingTasks() == 0; }));
    return calls;
}

// What the connect callback is called with.
int attempt(const std::string& address, const MqttOptions& options) {
    const auto client = kel::MqttClient::createInstance(address, "tls", "", "", options);
    std::promise<int> result;
    client->Connect([&result](int rc) { return result.set_value(rc), false; }, {});
    return result.get_future().get();
}

// A peer and a setting of ours. Everything else fits.
struct Case {
    std::string sides;        // of ours: server, HTTPS client, MQTT client
    std::string certificate;  // of the peer
    std::string reason = {};  // why there is no connection; empty: there is one
    std::string setting = {}, value = {};
    std::string host = "localhost";  // that is connected to
};

// The configuration of each test begins with the defaults of a first start and with a certificate.
class Tls : public testing::Test {
protected:
    Tls() {
        configInstance().remove("openSSL");
        kel::initSSLOption();
        set("server", "privateKeyFile", files["good.key"]);
        set("server", "certificateFile", files["good.pem"]);
        set("server", "caConfig", files["root.pem"]);
    }
    ~Tls() override {
        api->stop();
        kel::tls::handshakeTime() = std::chrono::seconds(10);
    }

    static void set(const std::string& side, const std::string& name, const std::string& value) {
        configInstance().setString("openSSL." + side + "." + name, value);
    }

    // If anything is wrong, one line that contains `line`, after `earlier` ones, gives the reason.
    void expectTold(const std::string& line, const std::string& reason,
                    std::size_t earlier = 0) const {
        EXPECT_EQ(earlier + (reason.empty() ? 0 : 1), log.count(line)) << line;
        const std::string said = log.find(line, earlier).getText();
        EXPECT_TRUE(contains(said, reason)) << said << " without " << reason;
    }

    // A shell line that runs openssl's own server; "ACCEPT " and its address are what it prints.
    std::string serverWith(const std::string& certificate) const {
        return "openssl s_server -accept 127.0.0.1:0 -www -cert " + files[certificate + ".pem"] +
               " -key " + files["good.key"];
    }

    // A web API, for openssl as its client.
    void serve() {
        const auto socket = kel::secureServerSocket(kAnyPort);
        port = socket.address().port();
        api->apiRegist("/json", [](auto&, auto&, auto&, auto& result) { result.set("a", 1); });
        api->start(socket);
    }

    // Whether that client says `part` of one connection on which it gets /json.
    bool clientSays(const std::string& part, const std::string& options = "") const {
        return contains(
            shell("printf 'GET /json HTTP/1.0\r\n\r\n' | timeout 20 openssl s_client -ign_eof "
                  "-verify_return_error -CAfile " +
                  files["root.pem"] + " -verify_hostname localhost -connect 127.0.0.1:" +
                  std::to_string(port) + " " + options + " || true"),
            part);
    }

    // A broker behind TLS.
    struct Secured : Broker {
        Secured(const Certificates& files, const std::string& name, const std::string& further = "")
            : Broker(Login::kAnonymous, "certfile " + files[name + ".pem"] + "\nkeyfile " +
                                            files["good.key"] + "\n" + further) {}

        std::string address(const std::string& host = "localhost") const {
            return "ssl://" + host + ":" + std::to_string(port());
        }
    };

    MqttOptions trusting() const {
        MqttOptions options;
        options.authorities = files["root.pem"];
        return options;
    }

    void configure(const std::string& side, const Case& one) const;
    void asServer(const Case& one);
    void asClient(const Case& one) const;
    void asMqttClient(const Case& one) const;

    CapturedLog log;
    const Certificates& files = certificates();
    const std::shared_ptr<kel::WebApiBasic> api = kel::WebApiBasic::instance();
    Poco::UInt16 port = 0;
};

}  // namespace

void Tls::configure(const std::string& side, const Case& one) const {
    configInstance().remove("openSSL." + side);
    set(side, "privateKeyFile", files["good.key"]);
    set(side, "privateKeyPassphraseHandler.options.password", Certificates::kPassphrase);
    set(side, "certificateFile", files["good.pem"]);
    set(side, "caConfig", files["root.pem"]);
    set(side, "crlFile", files["crl.pem"]);
    set(side, "loadDefaultCAFile", "false");
    set(side, "verificationMode", "strict");
    if (!one.setting.empty()) set(side, one.setting, one.value);
}

void Tls::asServer(const Case& one) {
    configure("server", one);
    const std::size_t before = log.count(one.reason);
    try {
        serve();
    } catch (const Poco::Exception& exc) {
        EXPECT_TRUE(!one.reason.empty() && contains(exc.displayText(), one.reason))
            << exc.displayText();
        return;
    }
    const std::string shown = " -cert " + files[one.certificate + ".pem"];
    EXPECT_EQ(one.reason.empty(), clientSays(kJson, "-key " + files["good.key"] +
                                                        (one.certificate.empty() ? "" : shown)));
    EXPECT_TRUE(one.reason.empty() || log.await(one.reason, before + 1));
    api->stop();
}

void Tls::asClient(const Case& one) const {
    configure("client", one);
    const bool named = one.host == "localhost";  // whoever does not say so is shown another one
    Background server(serverWith(named ? "stranger" : one.certificate) +
                      " -servername localhost -cert2 " + files[one.certificate + ".pem"] +
                      " -key2 " + files["good.key"]);
    const std::string address = server.lineAfter("ACCEPT ");
    const std::string url = "https://" + one.host + address.substr(address.find(':')) + "/";
    const std::string line = "requst url '" + url + "' exception: ";
    const std::size_t earlier = log.count(line);  // of a server that had the same port
    EXPECT_EQ(one.reason.empty() ? "200 page" : "400", get(url));
    expectTold(line, one.reason, earlier);
}

void Tls::asMqttClient(const Case& one) const {
    SCOPED_TRACE(one.certificate + " " + one.setting + " " + one.value);
    MqttOptions options = trusting();
    options.certificate = files["good.pem"];
    options.privateKey = files["good.key"];
    options.privateKeyPassphrase = Certificates::kPassphrase;
    options.checkServerName = one.setting != "extendedVerification";
    if (one.setting == "certificateFile") options.certificate = one.value;
    if (one.setting == "privateKeyFile") options.privateKey = one.value;
    if (one.setting == "caConfig") options.authorities = one.value;
    const Secured broker(files, one.certificate,
                         "require_certificate true\ncafile " + files["root.pem"] + "\ncrlfile " +
                             files["crl.pem"] + "\n");
    const std::string line = "no connection to " + broker.address(one.host);
    const std::size_t earlier = log.count(line);
    EXPECT_EQ(one.reason.empty(), attempt(broker.address(one.host), options) == 0);
    expectTold(line, one.reason, earlier);
}

TEST_F(Tls, EachSideTakesWhatFitsAndSaysWhatDoesNot) {
    const std::string missing = files["missing.pem"], endless(300, 'a'), good = "good";
    const std::string key = "privateKeyFile", certificate = "certificateFile";
    const std::vector<Case> cases = {
        {"scm", good},
        {"m", "chained"},
        {"cm", good, "", "", "", "127.0.0.1"},
        {"cm", "elsewhere", "hostname mismatch"},
        {"cm", "elsewhere", "IP address mismatch", "", "", "127.0.0.1"},
        {"cm", "elsewhere", "", "extendedVerification", "false"},
        {"scm", "expired", "certificate has expired"},
        {"scm", "stranger", kUnknown},
        {"scm", "truncated", kUnknown},
        {"sc", "revoked", "certificate revoked"},
        {"s", "", "peer did not return a certificate"},
        {"m", good, "certificate required", certificate, ""},
        {"m", good, "certificate revoked", certificate, files["revoked.pem"]},
        {"scm", good, missing + ": No such file", certificate, missing},
        {"scm", good, files["cut.pem"] + ": ", certificate, files["cut.pem"]},
        {"scm", good, "", key, files["locked.key"]},
        {"scm", good, files["shipped.key"] + ": the passphrase does not open it", key,
         files["shipped.key"]},
        {"scm", good, files["other.key"] + ": does not fit", key, files["other.key"]},
        {"scm", good, files["root.pem"] + ": holds no key", key, files["root.pem"]},
        {"scm", good, missing + ": No such file", key, missing},
        {"s", good, "openSSL.server.privateKeyFile", key, ""},
        {"c", good, files["good.pem"] + ": holds no key", key, ""},
        {"scm", good, missing + ": No such file", "caConfig", missing},
        {"scm", good, files["good.key"] + ": ", "caConfig", files["good.key"]},
        {"scm", good, endless + ": File name too long", "caConfig", endless},
        {"sc", good, files["good.pem"] + ": ", "crlFile", files["good.pem"]},
        {"sc", good, "cipherList: no cipher match", "cipherList", "no-such-cipher"},
        {"sc", good, "verificationMode: ", "verificationMode", "lazy"},
        {"s", good, "openSSL.server.sessionCacheSize: ", "sessionCacheSize", "many"},
        {"sc", good, "PassphraseHandler.name: ", "privateKeyPassphraseHandler.name",
         "KeyConsoleHandler"},
        {"sc", good, "CertificateHandler.name: ", "invalidCertificateHandler.name", "Nobody"},
    };
    std::vector<std::future<void>> attempts;  // at once: each takes a second or two
    for (const Case& one : cases) {
        SCOPED_TRACE(one.sides + " " + one.certificate + " " + one.setting + " " + one.value);
        if (contains(one.sides, "s")) asServer(one);
        if (contains(one.sides, "c")) asClient(one);
        if (!contains(one.sides, "m")) continue;
        attempts.push_back(std::async(std::launch::async, [&] { asMqttClient(one); }));
    }
    attempts.clear();
    EXPECT_EQ(0u, log.count(Certificates::kPassphrase));
    EXPECT_EQ(0u, log.count("vellum"));
}

TEST_F(Tls, ClientTakesWhatItIsToldToTakeAndWarnsOnce) {
    set("client", "caConfig", files["root.pem"]);
    Background server(serverWith("elsewhere"));
    const std::string url = "https://" + server.lineAfter("ACCEPT ") + "/";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"extendedVerification", "false"},  // any name
        {"verificationMode", "none"},       // any authority
    };
    for (const auto& [name, value] : cases) {
        EXPECT_EQ("400", get(url)) << name;
        set("client", name, value);
        for (int i = 0; i < 2; ++i) EXPECT_EQ("200 page", get(url)) << name;
        EXPECT_EQ(1u, log.count("openSSL.client." + name + ": ")) << name;
        configInstance().remove("openSSL.client.caConfig");
    }
}

// OpenSSL's own clean-up at exit would come before the end of these requests.
TEST_F(Tls, AProcessEndsCleanlyAmidHandshakes) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    set("client", "caConfig", files["root.pem"]);
    const auto endAmidRequests = [this] {
        serve();
        const std::string url = "https://localhost:" + std::to_string(port) + "/json";
        for (int i = 0; i < 8; ++i) {
            kel::HttpClient::defaultHttpClient()->doHttpRequest(url, [](auto, auto&) {});
        }
        std::exit(0);
    };
    for (int i = 0; i < 2; ++i) EXPECT_EXIT(endAmidRequests(), testing::ExitedWithCode(0), "");
}

// Its peer would be waited for longer than this test may take.
TEST_F(Tls, AStopCutsOffAHandshakeThatDoesNotEnd) {
    kel::tls::handshakeTime() = std::chrono::hours(1);
    const Poco::Net::ServerSocket silent(kAnyPort);
    std::promise<int> status;
    kel::HttpClient::defaultHttpClient()->doHttpRequest(
        "https://" + silent.address().toString(),
        [&status](auto replied, auto&) { status.set_value(replied); });
    kel::stopLibrary();
    EXPECT_EQ(400, status.get_future().get());
    EXPECT_EQ(1u, log.count("the connection was closed in the handshake"));
}

TEST_F(Tls, ServerTakesRenewedFilesUpWithTheNextConnection) {
    const TempFolder own;
    const std::string pem = own.path / "server.pem";
    set("server", "certificateFile", pem);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"good.pem", "issuer=CN = root"},    {"expired.pem", "certificate has expired"},
        {"chained.pem", "Verification: OK"}, {"cut.pem", "Verification: OK"},  // half a renewal
        {"good.pem", "issuer=CN = root"},
    };
    for (const auto& [name, said] : cases) {
        std::filesystem::copy_file(files[name], pem,
                                   std::filesystem::copy_options::overwrite_existing);
        if (port == 0) serve();
        EXPECT_TRUE(clientSays(said)) << name;
    }
    expectTold("the previous ones stay in use: SSL Exception: ",
               "openSSL.server.certificate " + pem);
}

TEST_F(Tls, ServerSpeaksTls12AtLeastWhileOthersSpeakSomethingElseOrNothing) {
    kel::tls::handshakeTime() = std::chrono::seconds(3);
    serve();
    std::vector<RawClient> silent;
    for (int i = 0; i < 3; ++i) silent.emplace_back(port).send("\x16\x03\x01");
    RawClient(port).send(request("GET /json"));
    RawClient(port).send(std::string(600, '\x16'));
    EXPECT_TRUE(log.await("plain HTTP instead of TLS"));
    EXPECT_TRUE(log.await("no TLS, or none that is spoken here"));
    EXPECT_TRUE(clientSays(kJson, "-tls1_3"));
    EXPECT_TRUE(clientSays(kJson, "-tls1_2 -sess_out " + files["session"]));
    EXPECT_TRUE(clientSays("Reused, TLSv1.2", "-tls1_2 -sess_in " + files["session"]));
    EXPECT_FALSE(clientSays(kJson, "-tls1_1 -cipher ALL:@SECLEVEL=0"));
    EXPECT_TRUE(log.await("stopped in the handshake", silent.size()));
    api->stop();
    serve();  // on another port
    EXPECT_TRUE(clientSays(kJson));
}

TEST_F(Tls, APeerThatClosesAmidABodyIsAFailedRequest) {
    set("client", "caConfig", files["root.pem"]);
    auto socket = kel::secureServerSocket(kAnyPort);
    const auto served = std::async(std::launch::async, [&socket] {
        auto peer = socket.acceptConnection();
        char byte = 0;
        peer.receiveBytes(&byte, 1);
    });
    int status = 0;
    kel::HttpClient::defaultHttpClient()->doHttpRequestSync(
        "https://localhost:" + std::to_string(socket.address().port()), std::string(32 << 20, ' '),
        [&status](auto replied, auto&) { status = replied; });
    EXPECT_EQ(400, status);
}

TEST_F(Tls, BrokerCarriesMessagesComesBackAndTellsTheLastWill) {
    Secured broker(files, "good");
    MqttOptions options = trusting();
    options.will = kel::MqttWill{"will", R"({"gone":true})", 1, true};
    const Inbox inbox;
    const auto connected = [&](const std::string& id, const MqttOptions& with) {
        const auto client =
            kel::MqttClient::createInstance(broker.address("127.0.0.1"), id, "", "", with);
        client->Connect(kAlways, kAlways);
        EXPECT_TRUE(await([&] { return client->PublishMessage("{}", "probe", 0, 0, 0); }));
        return client;
    };
    const auto other = connected("other", trusting());
    other->Subscribe(inbox.handler(), "will", 1);
    other->Subscribe(inbox.handler(), "bulk", 1);
    ASSERT_TRUE(log.await("Success to subscribe topic bulk"));
    const auto client = connected("same", options);
    const std::string large = R"({"text":")" + std::string(200000, 'x') + R"("})";
    for (int i = 0; i < 50; ++i) EXPECT_TRUE(client->PublishMessage(large, "bulk", 1, 0, 0));
    EXPECT_TRUE(inbox.await("bulk " + large, 50));
    EXPECT_FALSE(inbox.count("will") > 0);
    const auto usurper = connected("same", trusting());  // ends the first's connection
    EXPECT_TRUE(inbox.await(R"(will {"gone":true})"));
    usurper->Disconnect();
    broker.restart();
    // Until one finds the subscription in force again.
    EXPECT_TRUE(await([&] {
        return other->PublishMessage("{}", "bulk", 1, 0, 0) && inbox.count("bulk {}") > 0;
    }));
}

TEST_F(Tls, BrokerIsOfferedTheProtocolsThatAreNamed) {
    Background server("stdbuf -oL " + serverWith("good") + " -alpn mqtt");
    MqttOptions options = trusting();
    options.connectTimeout = std::chrono::seconds(1);
    options.applicationProtocols = {"other", "mqtt"};
    EXPECT_NE(0, attempt("ssl://" + server.lineAfter("ACCEPT "), options));
    EXPECT_EQ("other, mqtt", server.lineAfter("ALPN protocols advertised by the client: "));
}

TEST_F(Tls, BrokerOrServerThatSpeaksSomethingElseOrNothingIsAFailure) {
    kel::tls::handshakeTime() = std::chrono::seconds(1);
    MqttOptions options = trusting();
    options.connectTimeout = std::chrono::seconds(2);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"HTTP/1.1 200 OK\r\n\r\n", "no TLS"},
        {std::string(600, '\x16'), "no TLS"},
        {"", "stopped in the handshake"},
    };
    for (const auto& [answer, reason] : cases) {
        SCOPED_TRACE(reason);
        Poco::Net::ServerSocket socket(kAnyPort);
        const auto served = std::async(std::launch::async, [&socket, &answer = answer] {
            std::vector<RawClient> peers;
            try {
                while (true) peers.emplace_back(socket.acceptConnection()).send(answer);
            } catch (const Poco::Exception&) {
                return peers.size();  // the case has ended
            }
        });
        const std::string address = socket.address().toString();
        const std::size_t before = log.count(reason);
        EXPECT_NE(0, attempt("mqtts://" + address, options));
        EXPECT_EQ("400", get("https://" + address + "/secret"));
        EXPECT_EQ(1u, log.count("no connection to mqtts://" + address));
        EXPECT_EQ(before + 2, log.count(reason));
        socket.impl()->shutdown();
    }
    options.will = kel::MqttWill{"a/#", "", 0, false};
    EXPECT_THROW(attempt("ssl://localhost", options), Poco::InvalidArgumentException);
}
