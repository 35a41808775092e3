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

namespace {

const Certificates& certificates() {
    static const Certificates made;
    return made;
}

// The configuration of each test begins with the defaults of a first start.
class Tls : public testing::Test {
protected:
    Tls() {
        configInstance().remove("openSSL");
        kel::initSSLOption();
    }
    ~Tls() override { kel::tls::handshakeTime() = std::chrono::seconds(10); }

    static void set(const std::string& side, const std::string& name, const std::string& value) {
        configInstance().setString("openSSL." + side + "." + name, value);
    }

    // A shell line that runs openssl's own server; "ACCEPT " and its address are what it prints.
    std::string serverWith(const std::string& certificate) const {
        return "openssl s_server -accept 127.0.0.1:0 -www -cert " + files[certificate + ".pem"] +
               " -key " + files["good.key"];
    }

    // What the callback of a GET is called with, as "<status> <whether the server's page came>".
    static std::string get(const std::string& url) {
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

    static bool contains(const std::string& text, const std::string& part) {
        return text.find(part) != std::string::npos;
    }

    CapturedLog log;
    const Certificates& files = certificates();
};

}  // namespace

TEST_F(Tls, ClientAcceptsOnlyACertificateThatFits) {
    set("client", "caConfig", files["root.pem"]);
    set("client", "crlFile", files["crl.pem"]);
    const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
        {"good", "localhost", ""},
        {"good", "127.0.0.1", ""},
        {"expired", "localhost", "certificate has expired"},
        {"elsewhere", "localhost", "hostname mismatch"},
        {"elsewhere", "127.0.0.1", "IP address mismatch"},
        {"stranger", "localhost", "unable to get local issuer certificate"},
        {"truncated", "localhost", "unable to get local issuer certificate"},
        {"revoked", "localhost", "certificate revoked"},
    };
    for (const auto& [name, host, reason] : cases) {
        SCOPED_TRACE(name + " as " + host);
        Background server(serverWith(name));
        const std::string address = server.lineAfter("ACCEPT ");
        const std::string url = "https://" + host + address.substr(address.find(':')) + "/";
        const std::string line = "requst url '" + url + "' exception: ";
        EXPECT_EQ(reason.empty() ? "200 page" : "400", get(url));
        EXPECT_EQ(reason.empty() ? 0u : 1u, log.count(line));
        EXPECT_TRUE(contains(log.find(line).getText(), reason));
    }
}

TEST_F(Tls, ClientAcceptsMoreWhereTheSettingsSaySoAndWarnsOnce) {
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

// OpenSSL's own clean-up at exit would come before the end of these requests. The processes that
// end run this test from its beginning, but ask the server of the first.
TEST_F(Tls, AProcessEndsCleanlyAmidHandshakes) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::unique_ptr<Background> server;
    if (!::getenv("KEL_TEST_URL")) {
        server = std::make_unique<Background>(serverWith("good"));
        ::setenv("KEL_TEST_URL", ("https://" + server->lineAfter("ACCEPT ")).c_str(), 1);
        ::setenv("KEL_TEST_ROOT", files["root.pem"].c_str(), 1);
    }
    set("client", "caConfig", ::getenv("KEL_TEST_ROOT"));
    const auto endAmidRequests = [] {
        for (int i = 0; i < 8; ++i) {
            kel::HttpClient::defaultHttpClient()->doHttpRequest(::getenv("KEL_TEST_URL"),
                                                                [](auto, auto&) {});
        }
        std::exit(0);
    };
    for (int i = 0; i < 2; ++i) EXPECT_EXIT(endAmidRequests(), testing::ExitedWithCode(0), "");
}

// Its peer would be waited for longer than this test may take.
TEST_F(Tls, AStopCutsOffAHandshakeThatDoesNotEnd) {
    kel::tls::handshakeTime() = std::chrono::hours(1);
    const Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    std::promise<int> status;
    kel::HttpClient::defaultHttpClient()->doHttpRequest(
        "https://" + silent.address().toString(),
        [&status](auto replied, auto&) { status.set_value(replied); });
    kel::stopLibrary();
    EXPECT_EQ(400, status.get_future().get());
    EXPECT_EQ(1u, log.count("the connection was closed in the handshake"));
}

// A web API behind TLS, and openssl as its client.
class TlsServer : public Tls {
protected:
    TlsServer() {
        set("server", "privateKeyFile", files["good.key"]);
        set("server", "certificateFile", files["good.pem"]);
        set("server", "caConfig", files["root.pem"]);
    }
    ~TlsServer() override { api->stop(); }

    void start() {
        const auto socket = kel::secureServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0));
        port = socket.address().port();
        api->apiRegist("/json", [](auto&, auto&, auto&, auto& result) { result.set("a", 1); });
        api->start(socket);
    }

    // What openssl's client says of one connection on which it gets /json.
    std::string connect(const std::string& options = "") const {
        return shell(
            "printf 'GET /json HTTP/1.0\r\n\r\n' | timeout 20 openssl s_client -ign_eof "
            "-verify_return_error -CAfile " +
            files["root.pem"] + " -verify_hostname localhost -connect 127.0.0.1:" +
            std::to_string(port) + " " + options + " || true");
    }

    const std::shared_ptr<kel::WebApiBasic> api = kel::WebApiBasic::instance();
    Poco::UInt16 port = 0;
};

TEST_F(TlsServer, NamesTheFileOrSettingThatCannotBeUsedAsTheClientDoes) {
    const std::string missing = files["missing.pem"], handler = "privateKeyPassphraseHandler.";
    const std::vector<std::tuple<std::string, std::string, std::string, std::string>> cases = {
        {"server", "privateKeyFile", "", "openSSL.server.privateKeyFile"},
        {"client", "privateKeyFile", "", files["good.pem"] + ": holds no key"},
        {"server", "sessionCacheSize", "many", "openSSL.server.sessionCacheSize: "},
        {"both", "privateKeyFile", missing, missing + ": No such file"},
        {"both", "privateKeyFile", files["other.key"], files["other.key"] + ": does not fit"},
        {"both", "privateKeyFile", files["root.pem"], files["root.pem"] + ": holds no key"},
        {"both", "privateKeyFile", files["locked.key"], files["locked.key"] + ": the passphrase"},
        {"both", "certificateFile", missing, missing + ": No such file"},
        {"both", "certificateFile", files["cut.pem"], files["cut.pem"] + ": "},
        {"both", "caConfig", missing, missing + ": No such file"},
        {"both", "caConfig", files["good.key"], files["good.key"] + ": "},
        {"both", "crlFile", files["good.pem"], files["good.pem"] + ": "},
        {"both", "cipherList", "no-such-cipher", "cipherList: no cipher match"},
        {"both", "verificationMode", "lazy", "verificationMode: "},
        {"both", handler + "name", "KeyConsoleHandler", "PassphraseHandler.name: "},
        {"both", "invalidCertificateHandler.name", "Nobody", "CertificateHandler.name: "},
    };
    int uses = 0;
    const auto useOf = [&](const std::string& side) -> std::string {
        const std::string url = "https://127.0.0.1:1/" + std::to_string(++uses);
        if (side == "client") {
            EXPECT_EQ("400", get(url));
            return log.find("requst url '" + url).getText();
        }
        try {
            kel::secureServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0));
        } catch (const Poco::Exception& exc) {
            return exc.displayText();
        }
        return "";
    };
    for (const auto& [sides, name, value, reason] : cases) {
        for (const std::string side : {"server", "client"}) {
            if (sides != "both" && sides != side) continue;
            SCOPED_TRACE(side + " " + name + " " + value);
            configInstance().remove("openSSL." + side);
            set(side, "privateKeyFile", files["good.key"]);
            set(side, "certificateFile", files["good.pem"]);
            set(side, handler + "options.password", "wrong-guess");
            set(side, name, value);
            const std::string said = useOf(side);
            EXPECT_TRUE(contains(said, reason)) << said;
            EXPECT_FALSE(contains(said, "wrong-guess"));
        }
    }
}

TEST_F(TlsServer, UsesRenewedFilesFromTheNextConnectionOn) {
    const TempFolder own;
    const std::string pem = own.path / "server.pem";
    const auto renew = [&](const std::string& name) {
        std::filesystem::copy_file(files[name], pem,
                                   std::filesystem::copy_options::overwrite_existing);
    };
    renew("good.pem");
    set("server", "certificateFile", pem);
    start();
    EXPECT_TRUE(contains(connect(), "Verification: OK"));
    renew("expired.pem");
    EXPECT_TRUE(contains(connect(), "certificate has expired"));
    renew("chained.pem");
    EXPECT_TRUE(contains(connect(), "Verification: OK"));
    renew("cut.pem");  // half a renewal
    EXPECT_TRUE(contains(connect(), "Verification: OK"));
    EXPECT_EQ(
        1u, log.count("the previous ones stay in use: SSL Exception: openSSL.server.certificate " +
                      pem));
    renew("good.pem");
    EXPECT_TRUE(contains(connect(), "issuer=CN = root"));
}

TEST_F(TlsServer, LetsInOnlyTheClientsThatItAsksFor) {
    set("server", "verificationMode", "strict");
    set("server", "invalidCertificateHandler.name", "RejectCertificateHandler");
    set("server", "loadDefaultCAFile", "false");
    set("server", "crlFile", files["crl.pem"]);
    start();
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"good", ""},
        {"expired", "certificate has expired"},
        {"stranger", "unable to get local issuer certificate"},
        {"truncated", "unable to get local issuer certificate"},
        {"revoked", "certificate revoked"},
    };
    for (const auto& [name, reason] : cases) {
        SCOPED_TRACE(name);
        const std::string said =
            connect("-cert " + files[name + ".pem"] + " -key " + files["good.key"]);
        EXPECT_EQ(reason.empty(), contains(said, R"({"a":1})"));
        EXPECT_TRUE(reason.empty() || log.await(reason));
    }
    EXPECT_FALSE(contains(connect(), R"({"a":1})"));
    EXPECT_TRUE(log.await("peer did not return a certificate"));
}

TEST_F(TlsServer, ServesFromTls12OnWhileOthersSpeakSomethingElseOrNothing) {
    kel::tls::handshakeTime() = std::chrono::seconds(3);
    start();
    std::vector<RawClient> silent;
    for (int i = 0; i < 3; ++i) silent.emplace_back(port).send("\x16\x03\x01");
    RawClient(port).send(request("GET /json"));
    RawClient(port).send(std::string(600, '\x16'));
    EXPECT_TRUE(log.await("plain HTTP instead of TLS"));
    EXPECT_TRUE(log.await("no TLS, or none that is spoken here"));
    EXPECT_TRUE(contains(connect("-tls1_3"), R"({"a":1})"));
    EXPECT_TRUE(contains(connect("-tls1_2"), R"({"a":1})"));
    EXPECT_FALSE(contains(connect("-tls1_1 -cipher ALL:@SECLEVEL=0"), R"({"a":1})"));
    EXPECT_TRUE(log.await("stopped in the handshake", silent.size()));
    const std::string session = files["session"];
    connect("-tls1_2 -sess_out " + session);
    EXPECT_TRUE(contains(connect("-tls1_2 -sess_in " + session), "Reused, TLSv1.2"));
    api->stop();
    start();  // on another port
    EXPECT_TRUE(contains(connect(), R"({"a":1})"));
}

TEST_F(TlsServer, APeerThatClosesAmidABodyIsAFailedRequest) {
    set("client", "caConfig", files["root.pem"]);
    auto socket = kel::secureServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0));
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

// A broker behind TLS.
class TlsBroker : public Tls {
protected:
    struct Secured : Broker {
        Secured(const Certificates& files, const std::string& name, const std::string& further)
            : Broker(Login::kAnonymous, "certfile " + files[name + ".pem"] + "\nkeyfile " +
                                            files["good.key"] + "\n" + further) {}

        std::string address(const std::string& host = "localhost") const {
            return "ssl://" + host + ":" + std::to_string(port());
        }
    };

    kel::MqttOptions trusting() const {
        kel::MqttOptions options;
        options.authorities = files["root.pem"];
        return options;
    }

    // What the connect callback is called with.
    static int attempt(const std::string& address, const kel::MqttOptions& options) {
        const auto client = kel::MqttClient::createInstance(address, "tls", "", "", options);
        std::promise<int> result;
        client->Connect([&result](int rc) { return result.set_value(rc), false; }, {});
        return result.get_future().get();
    }
};

TEST_F(TlsBroker, ConnectingTakesAFittingCertificateOfEachSide) {
    const std::string strict = "require_certificate true\ncafile " + files["root.pem"] +
                               "\ncrlfile " + files["crl.pem"] + "\n";
    const auto with = [this](const std::string& name, const std::string& key,
                             const std::string& passphrase = "") {
        kel::MqttOptions options = trusting();
        options.certificate = files[name];
        options.privateKey = files[key];
        options.privateKeyPassphrase = passphrase;
        return options;
    };
    const kel::MqttOptions options = trusting();
    kel::MqttOptions missing = options, broken = options, endless = options, lax = options;
    missing.authorities = files["missing.pem"];
    broken.authorities = files["good.key"];
    endless.authorities.assign(300, 'a');
    lax.checkServerName = false;
    const std::vector<std::tuple<std::string, std::string, kel::MqttOptions, std::string>> cases = {
        {"good", "", options, ""},
        {"good", strict, with("good.pem", "good.key"), ""},
        {"good", strict, with("good.pem", "locked.key", Certificates::kPassphrase), ""},
        {"chained", "", options, ""},
        {"elsewhere", "", lax, ""},
        {"elsewhere", "", options, "hostname mismatch"},
        {"expired", "", options, "certificate has expired"},
        {"stranger", "", options, "unable to get local issuer certificate"},
        {"truncated", "", options, "unable to get local issuer certificate"},
        {"good", strict, options, "certificate required"},
        {"good", strict, with("revoked.pem", "good.key"), "certificate revoked"},
        {"good", strict, with("good.pem", "other.key"), files["other.key"] + ": does not fit"},
        {"good", strict, with("good.pem", "locked.key", "wrong-guess"),
         files["locked.key"] + ": the passphrase does not open it"},
        {"good", "", missing, files["missing.pem"] + ": No such file"},
        {"good", "", broken, files["good.key"] + ": "},
        {"good", "", endless, endless.authorities + ": File name too long"},
    };
    std::vector<std::future<void>> attempts;  // at once: each takes a second or two
    for (const auto& one : cases) {
        attempts.push_back(std::async(std::launch::async, [&] {
            const auto& [name, listener, given, reason] = one;
            const Secured broker(files, name, listener);
            EXPECT_EQ(reason.empty(), attempt(broker.address(), given) == 0) << name << reason;
            const std::string line = log.find("no connection to " + broker.address()).getText();
            EXPECT_TRUE(contains(line, reason)) << name << line;
            EXPECT_EQ(reason.empty(), line.empty()) << name << line;
        }));
    }
    attempts.clear();
    EXPECT_EQ(0u, log.count("wrong-guess"));
    EXPECT_EQ(0u, log.count(Certificates::kPassphrase));
}

TEST_F(TlsBroker, CarriesMessagesComesBackAndTellsTheLastWill) {
    Secured broker(files, "good", "");
    kel::MqttOptions options = trusting();
    options.will = kel::MqttWill{"will", R"({"gone":true})", 1, true};
    options.applicationProtocols = {"mqtt"};
    const Inbox inbox;
    const auto connected = [&](const std::string& id, const kel::MqttOptions& with) {
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

TEST_F(TlsBroker, ConnectingFailsWhereThePeerSpeaksSomethingElseOrNothing) {
    kel::tls::handshakeTime() = std::chrono::seconds(1);
    kel::MqttOptions options = trusting();
    options.connectTimeout = std::chrono::seconds(2);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"HTTP/1.1 200 OK\r\n\r\n", "no TLS"},
        {std::string(600, '\x16'), "no TLS"},
        {"", "stopped in the handshake"},
    };
    for (const auto& [answer, reason] : cases) {
        SCOPED_TRACE(reason);
        Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
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
