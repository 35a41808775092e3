// TLS against openssl's own client and server, and a real broker.

#include <Poco/StreamCopier.h>
#include <common/Config.h>
#include <common/HttpClient.h>
#include <common/Tls.h>
#include <common/WebApiBasic.h>
#include <gtest/gtest.h>

#include "Await.h"
#include "CapturedLog.h"
#include "Certificates.h"
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

    static void set(const std::string& side, const std::string& name, const std::string& value) {
        configInstance().setString("openSSL." + side + "." + name, value);
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

    CapturedLog log;
    const Certificates& files = certificates();
};

}  // namespace

TEST_F(Tls, ClientTakesOnlyACertificateThatFits) {
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
        Background server("openssl s_server -accept 127.0.0.1:0 -www -cert " +
                          files[name + ".pem"] + " -key " + files["good.key"]);
        const std::string address = server.lineAfter("ACCEPT ");
        const std::string url = "https://" + host + address.substr(address.find(':')) + "/";
        const std::string line = "requst url '" + url + "' exception: ";
        EXPECT_EQ(reason.empty() ? "200 page" : "400", get(url));
        EXPECT_EQ(reason.empty() ? 0u : 1u, log.count(line));
        EXPECT_NE(std::string::npos, log.find(line).getText().find(reason));
    }
}
