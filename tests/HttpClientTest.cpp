#include <Poco/Net/HTMLForm.h>
#include <Poco/StreamCopier.h>
#include <common/HttpClient.h>
#include <common/Library.h>
#include <common/ThreadPool.h>
#include <common/internal/http/MaskedUrl.h>
#include <common/internal/log/UnitLog.h>
#include <gtest/gtest.h>

#include "Await.h"
#include "CapturedLog.h"
#include "RawHttp.h"

namespace {

const std::string kOk = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi";

// What the callback is called with, as "<status> <body>"; it throws on status 418.
template <typename... Body>
std::string ask(const std::string& url, Body&... body) {
    std::string calls;
    const auto note = [&calls](auto status, std::istream& reply) {
        calls += std::to_string(status) + " ";
        Poco::StreamCopier::copyToString(reply, calls);
        if (status == 418) throw Poco::DataFormatException("no coffee");
    };
    kel::HttpClient::defaultHttpClient()->doHttpRequest(url, body..., note);
    EXPECT_TRUE(await([] { return kel::ThreadPool::defaultPool().pendingTasks() == 0; }));
    return calls;
}

}  // namespace

TEST(HttpClient, PutsEachShapeOnTheWireAsDocumented) {
    ScriptedServer server(kOk);
    const std::string base = server.url(""), json = R"({"a":1})";
    Poco::Net::HTMLForm form;
    form.set("n", "a b&c");
    EXPECT_EQ("200 hi", ask(base + "/p%20q?x=1&y=a+b#f"));
    EXPECT_EQ("200 hi", ask(base + "?q"));
    EXPECT_EQ("200 hi", ask(base + "/json", json));
    kel::HttpClient::defaultHttpClient()->doHttpRequestSync(base + "/sync", "", nullptr);
    EXPECT_EQ("200 hi", ask(base + "/form", form));
    const std::string post = " HTTP/1.1\r\nContent-Type: application/";
    const std::string host = "\r\nHost: " + base.substr(7) + "\r\n\r\n";
    const std::vector<std::string> expected = {
        "GET /p%20q?x=1&y=a+b HTTP/1.1\r\nConnection: Close" + host,
        "GET /?q HTTP/1.1\r\nConnection: Close" + host,
        "POST /json" + post + "json\r\nContent-Length: 7" + host + json,
        "POST /sync" + post + "json\r\nContent-Length: 0" + host,
        "POST /form" + post + "x-www-form-urlencoded\r\nContent-Length: 11" + host + "n=a%20b%26c"};
    EXPECT_EQ(expected, server.awaitRequests(5));
}

TEST(HttpClient, HandsRepliesOnAsTheyCameAndMakesOneLineAndOne400OfEachFailure) {
    CapturedLog log;
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"HTTP/1.1 500 Oops\r\n\r\nuntil the end", "500 until the end"},
        {"HTTP/1.1 404 Gone\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\n0\r\n\r\n", "404 ab"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nshort", "200 short"},
        {"HTTP/1.1 418 Teapot\r\n\r\nshort", "418 short400 "},  // its callback throws
        {"HTTP/1.1 200 OK\r\n" + std::string(100000, 'x'), "400 "},
        {"HTTP/1.1 200 OK\r\nContent-Length: many\r\n\r\n", "400 "},
        {"", "400 "},
    };
    for (const auto& [wire, expected] : cases)
        EXPECT_EQ(expected, ask(ScriptedServer(wire).url())) << wire.substr(0, 80);
    ScriptedServer live(kOk);
    ScriptedServer silent([](RawClient& peer) { peer.read(); });
    // A full backlog answers no connection attempt.
    const Poco::Net::ServerSocket full(Poco::Net::SocketAddress("127.0.0.1", 0), 1);
    std::vector<Poco::Net::StreamSocket> waiting(8);
    for (auto& socket : waiting) socket.connectNB(full.address());
    const std::vector<std::string> urls = {"",
                                           "http://%zz/",
                                           "http://127.0.0.1:1/refused",
                                           "http://" + full.address().toString(),
                                           silent.url(),
                                           live.url("/a?b\r\nX-Injected: 1")};
    std::vector<std::future<std::string>> replies;
    for (const auto& url : urls)
        replies.push_back(std::async(std::launch::async, [&] { return ask(url, url); }));
    for (auto& reply : replies) EXPECT_EQ("400 ", reply.get());
    for (const auto& url : urls) {
        const std::string shown = kel::withoutControls(url);
        EXPECT_EQ(1u, log.count("requst url '" + shown + "' exception: ")) << shown;
    }
    EXPECT_EQ(1u, log.count("exception: Timeout: connect timed out: " + full.address().toString()));
    EXPECT_EQ(4 + urls.size(), log.count(""));
    const auto passOn = [](auto, auto&) { throw std::range_error(""); };
    EXPECT_THROW(kel::HttpClient::defaultHttpClient()->doHttpRequestSync(live.url(), "", passOn),
                 std::range_error);
    EXPECT_EQ(1u, live.awaitRequests(1).size()) << "a refused request reached the server";
}

TEST(HttpClient, ShowsNoSecretsOfAUrlInTheLog) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"http://h/p?a=1&secret=x&b=2#f", "http://h/p?a=1&secret=***&b=2#f"},
        {"http://u:p@h:1/p@q?x=a@b", "http://***@h:1/p@q?x=a@b"},
        {"http://u:p@w@h", "http://***@h"},
        {"u:p@h", "***@h"},  // no URL at all is shown no more openly
        {"http://h?PassWord=x;accessToken=y&keys", "http://h?PassWord=***;accessToken=***&keys"},
        {"http://h/?%73ecret=x&%zz=y", "http://h/?%73ecret=***&%zz=***"},
        {"http://h/#auth=x&secret=", "http://h/#auth=***&secret=***"},
        {"", ""},
        {"http://h/a/secret=1?", "http://h/a/secret=1?"},
    };
    for (const auto& [url, shown] : cases) EXPECT_EQ(shown, kel::maskedUrl(url));
    CapturedLog log;
    for (const std::string url : {"http://us%zzword@127.0.0.1/", "http://127.0.0.1:1/?token=word"})
        EXPECT_EQ("400 ", ask(url));
    EXPECT_EQ(2u, log.count("requst url 'http://"));
    EXPECT_EQ(0u, log.count("word"));
}

TEST(HttpClient, IsCutOffByAStopOfTheLibraryAndBeginsAnewAfterwards) {
    ScriptedServer live(kOk);
    ScriptedServer silent([](RawClient& peer) { peer.read(); });
    for (int round = 1; round <= 2; ++round) {
        std::promise<int> status;
        kel::HttpClient::defaultHttpClient()->doHttpRequest(
            silent.url(), [&](auto code, auto&) { status.set_value(code); });
        silent.awaitRequests(static_cast<std::size_t>(round));
        kel::stopLibrary();
        EXPECT_EQ(400, status.get_future().get());
        EXPECT_EQ("200 hi", ask(live.url()));
    }
}

TEST(HttpClient, CanBeDestroyedWhileRequestsRunWhichThePoolBounds) {
    std::promise<void> release;
    ScriptedServer server([released = release.get_future().share()](RawClient& peer) {
        released.wait();
        peer.send(kOk);
    });
    auto client = kel::HttpClient::createInstance();
    std::atomic<int> answered{0};
    const auto count = [&](auto status, std::istream&) { answered += status; };
    for (int i = 0; i < 32; ++i) client->doHttpRequest(server.url(), count);
    EXPECT_THROW(client->doHttpRequest(server.url(), count), Poco::NoThreadAvailableException);
    EXPECT_EQ(32u, server.awaitRequests(32).size());
    client.reset();
    release.set_value();
    kel::ThreadPool::defaultPool().stop();  // waits for all that was sent
    EXPECT_EQ(32 * 200, answered);
}
