#include <Poco/Net/HTMLForm.h>
#include <Poco/StreamCopier.h>
#include <common/HttpClient.h>
#include <gtest/gtest.h>

#include "CapturedLog.h"
#include "RawHttp.h"

using kel::HttpClient;

namespace {

const std::string kOk = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi";

// Adds what it is called with to `calls`, as "<status> <body>"; throws on status 418.
HttpClient::ResponseCallback noteIn(std::string& calls) {
    return [&calls](auto status, std::istream& body) {
        calls += std::to_string(status) + " ";
        Poco::StreamCopier::copyToString(body, calls);
        if (status == 418) throw Poco::DataFormatException("no coffee");
    };
}

template <typename... Body>
std::string request(const std::string& url, Body&... body) {
    std::string calls;
    HttpClient::defaultHttpClient()->doHttpRequest(url, body..., noteIn(calls));
    EXPECT_TRUE(await([] { return kel::ThreadPool::defaultPool().pendingTasks() == 0; }));
    return calls;
}

std::string postSync(const std::string& url) {
    std::string calls;
    HttpClient::defaultHttpClient()->doHttpRequestSync(url, "", noteIn(calls));
    return calls;
}

}  // namespace

TEST(HttpClient, PutsEachShapeOnTheWireAsDocumented) {
    ScriptedServer server(kOk);
    const std::string base = server.url(""), json = R"({"a":1})";
    Poco::Net::HTMLForm form;
    form.set("name", "a b&c");
    EXPECT_EQ("200 hi", request(base + "/p%20q?x=1&y=a+b#f"));
    EXPECT_EQ("200 hi", request(base + "?q"));
    EXPECT_EQ("200 hi", request(base + "/json", json));
    EXPECT_EQ("200 hi", postSync(base + "/sync"));
    EXPECT_EQ("200 hi", request(base + "/form", form));

    const std::string post = " HTTP/1.1\r\nContent-Type: application/";
    const std::string host = "\r\nHost: " + base.substr(7) + "\r\n\r\n";
    const std::vector<std::string> expected = {
        "GET /p%20q?x=1&y=a+b HTTP/1.1\r\nConnection: Close" + host,
        "GET /?q HTTP/1.1\r\nConnection: Close" + host,
        "POST /json" + post + "json\r\nContent-Length: 7" + host + json,
        "POST /sync" + post + "json\r\nContent-Length: 0" + host,
        "POST /form" + post + "x-www-form-urlencoded\r\nContent-Length: 14" + host +
            "name=a%20b%26c"};
    EXPECT_EQ(expected, server.awaitRequests(5));
}

TEST(HttpClient, HandsRepliesOnAsTheyCame) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"500 Oops\r\n\r\nuntil the end", "500 until the end"},
        {"404 Not Found\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n", "404 abc"},
        {"100 Continue\r\n\r\n" + kOk, "200 hi"},
        {"200 OK\r\nContent-Length: 10\r\n\r\nshort", "200 short"},
        {"200 OK\r\nContent-Length: -5\r\n\r\nhi", "200 "},
        {"418 Teapot\r\n\r\nshort", "418 short400 "},  // its callback throws
    };
    for (const auto& [wire, expected] : cases) {
        ScriptedServer server("HTTP/1.1 " + wire);
        EXPECT_EQ(expected, postSync(server.url())) << wire;
    }
}

TEST(HttpClient, TurnsEveryFailureIntoOneLineAndOneCallWith400) {
    CapturedLog log;
    ScriptedServer closing(""), garbage("this is no HTTP\r\n\r\n"), live(kOk);
    ScriptedServer endlessHeader("HTTP/1.1 200 OK\r\nX: " + std::string(100000, 'x'));
    ScriptedServer badLength("HTTP/1.1 200 OK\r\nContent-Length: many\r\n\r\n");
    ScriptedServer silent([](RawClient& peer) { peer.readReply(); });
    // A full backlog answers no connection attempt.
    const Poco::Net::ServerSocket full(Poco::Net::SocketAddress("127.0.0.1", 0), 1);
    std::vector<Poco::Net::StreamSocket> waiting(8);
    for (auto& socket : waiting) socket.connectNB(full.address());
    const std::vector<std::string> urls = {closing.url(),
                                           garbage.url(),
                                           endlessHeader.url(),
                                           badLength.url(),
                                           silent.url(),
                                           "http://" + full.address().toString(),
                                           "http://127.0.0.1:1/refused",
                                           "https" + live.url().substr(4),
                                           live.url("/a?b c"),
                                           live.url("/a?b\r\nX-Injected: 1"),
                                           "http://127.0.0.1:99999/",
                                           "http://%zz/",
                                           ""};
    std::vector<std::future<std::string>> replies;
    for (const auto& url : urls) {
        replies.push_back(std::async(std::launch::async, [&url] { return request(url); }));
        replies.push_back(std::async(std::launch::async, postSync, url));
    }
    for (auto& reply : replies) EXPECT_EQ("400 ", reply.get());
    for (const auto& url : urls) EXPECT_EQ(2u, log.count("requst url '" + url + "' exception: "));
    EXPECT_EQ(4u, log.count("Timeout"));
    EXPECT_EQ(2 * urls.size(), log.count(""));
    EXPECT_EQ("200 hi", postSync(live.url()));
    EXPECT_EQ(1u, live.awaitRequests(1).size()) << "a refused request reached the server";

    const auto client = HttpClient::defaultHttpClient();
    const auto thrower = [](auto, std::istream&) { throw std::range_error(""); };
    EXPECT_THROW(client->doHttpRequestSync(live.url(), "", thrower), std::range_error);
    client->doHttpRequestSync(live.url(), "", nullptr);
    EXPECT_THROW(client->doHttpRequestSync("", "", nullptr), std::bad_function_call);
}

TEST(HttpClient, MayGoWhileItsRequestsRunOfWhichThePoolTakesSoMany) {
    std::promise<void> release;
    ScriptedServer server([released = release.get_future().share()](RawClient& peer) {
        released.wait();
        peer.send(kOk);
    });
    auto client = HttpClient::createInstance();
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
