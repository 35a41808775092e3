// A library that was built without TLS refuses what would need it.

#include <common/HttpClient.h>
#include <common/Tls.h>
#include <gtest/gtest.h>

#include "CapturedLog.h"

TEST(NoTls, RefusesSecureAddressesInWords) {
    CapturedLog log;
    int status = 0;
    kel::HttpClient::defaultHttpClient()->doHttpRequestSync(
        "https://127.0.0.1:1/", "", [&](auto replied, auto&) { status = replied; });
    EXPECT_EQ(400, status);
    EXPECT_EQ(1u, log.count("https is not supported"));
    EXPECT_THROW(kel::secureServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0)),
                 Poco::NotImplementedException);
}
