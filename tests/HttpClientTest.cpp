#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/NetException.h>
#include <Poco/StreamCopier.h>
#include <common/HttpClient.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "CapturedLog.h"
#include "RawHttp.h"

using kel::HttpClient;
using Poco::Net::HTTPResponse;

namespace {

const std::string kOk = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi";

struct Reply {
    int status = 0;
    std::string body;
    bool operator==(const Reply&) const = default;
};

void PrintTo(const Reply& reply, std::ostream* out) {
    *out << reply.status << " " << reply.body;
}

Reply read(HTTPResponse::HTTPStatus status, std::istream& body) {
    Reply reply{status, {}};
    Poco::StreamCopier::copyToString(body, reply.body);
    return reply;
}

// What the callback of one asynchronous request gets.
template <typename... Body>
Reply request(HttpClient& client, const std::string& url, Body&... body) {
    std::promise<Reply> promise;
    client.doHttpRequest(url, body..., [&](auto status, std::istream& stream) {
        promise.set_value(read(status, stream));
    });
    return promise.get_future().get();
}

Reply postSync(const std::string& url, const std::string& body) {
    Reply reply;
    HttpClient::defaultHttpClient()->doHttpRequestSync(
        url, body, [&](auto status, std::istream& stream) { reply = read(status, stream); });
    return reply;
}

std::string host(const ScriptedServer& server) {
    return "127.0.0.1:" + std::to_string(server.port());
}

}  // namespace

TEST(HttpClient, PutsEachShapeOnTheWireAsDocumented) {
    ScriptedServer server(kOk);
    const auto client = HttpClient::createInstance();
    const Reply ok{200, "hi"};
    const std::string json = R"({"a":1})";

    EXPECT_EQ(ok, request(*client, server.url("/p%20q?x=1&y=a+b#f")));
    EXPECT_EQ(ok, request(*client, server.url("/json"), json));
    Poco::Net::HTMLForm form;
    form.set("name", "a b&c");
    EXPECT_EQ(ok, request(*client, server.url("/form"), form));
    EXPECT_EQ(ok, postSync(server.url("/sync"), ""));
    EXPECT_EQ(ok, request(*client, "http://" + host(server)));         // no path
    EXPECT_EQ(ok, request(*client, "http://" + host(server) + "?q"));  // nor with a query

    const std::string end = "Host: " + host(server) + "\r\n";
    const std::vector<std::string> expected = {
        "GET /p%20q?x=1&y=a+b HTTP/1.1\r\nConnection: Close\r\n" + end + "\r\n",
        "POST /json HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: 7\r\n" + end +
            "\r\n" + json,
        "POST /form HTTP/1.1\r\nContent-Type: application/x-www-form-urlencoded\r\n"
        "Content-Length: 14\r\n" +
            end + "\r\nname=a%20b%26c",
        "POST /sync HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: 0\r\n" + end +
            "\r\n",
        "GET / HTTP/1.1\r\nConnection: Close\r\n" + end + "\r\n",
        "GET /?q HTTP/1.1\r\nConnection: Close\r\n" + end + "\r\n",
    };
    EXPECT_EQ(expected, server.awaitRequests(expected.size()));
}

TEST(HttpClient, SendsAMultipartFormChunked) {
    ScriptedServer server(kOk);
    Poco::Net::HTMLForm form(Poco::Net::HTMLForm::ENCODING_MULTIPART);
    form.set("name", "value");
    EXPECT_EQ((Reply{200, "hi"}), request(*HttpClient::defaultHttpClient(), server.url(), form));
    const std::string wire = server.awaitRequests(1)[0];
    EXPECT_NE(std::string::npos, wire.find("\r\nContent-Type: multipart/form-data; boundary=\""))
        << wire;
    EXPECT_NE(std::string::npos, wire.find("Transfer-Encoding: chunked\r\n")) << wire;
    EXPECT_NE(std::string::npos, wire.find("name=\"name\"\r\n\r\nvalue\r\n")) << wire;
}

TEST(HttpClient, HandsRepliesOnAsTheyCame) {
    const std::vector<std::pair<std::string, Reply>> cases = {
        {"HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\ngone", {404, "gone"}},
        {"HTTP/1.1 500 Oops\r\n\r\nuntil the end", {500, "until the end"}},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n",
         {200, "abc"}},
        {"HTTP/1.1 100 Continue\r\n\r\n" + kOk, {200, "hi"}},
        {"HTTP/1.1 204 No Content\r\n\r\n", {204, ""}},
        {"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nshort", {200, "short"}},  // truncated body
        {"HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\nhi", {200, ""}},
    };
    for (const auto& [wire, expected] : cases) {
        SCOPED_TRACE(wire);
        ScriptedServer server(wire);
        EXPECT_EQ(expected, request(*HttpClient::defaultHttpClient(), server.url()));
        EXPECT_EQ(expected, postSync(server.url(), "{}"));
    }
}

TEST(HttpClient, TurnsEveryFailureIntoOneLineAndStatus400) {
    CapturedLog log;
    ScriptedServer closing("");
    ScriptedServer garbage("\x16\x03\x01 this is no HTTP\r\n\r\n");
    ScriptedServer truncated("HTTP/1.1 200 OK\r\nContent-Le");
    ScriptedServer endlessHeader("HTTP/1.1 200 OK\r\nX: " + std::string(100000, 'x'));
    ScriptedServer badLength("HTTP/1.1 200 OK\r\nContent-Length: many\r\n\r\n");
    ScriptedServer live(kOk);
    int refused = 0;
    {
        const Poco::Net::ServerSocket taken(Poco::Net::SocketAddress("127.0.0.1", 0));
        refused = taken.address().port();
    }
    const std::vector<std::string> urls = {
        closing.url("/closing"),
        garbage.url("/garbage"),
        truncated.url("/truncated"),
        endlessHeader.url("/endless"),
        badLength.url("/length"),
        "http://127.0.0.1:" + std::to_string(refused) + "/refused",
        "https://" + host(live) + "/secret",
        live.url("/a?b c"),
        live.url("/a?b\r\nX-Injected: 1"),
        "http://127.0.0.1:99999/port",
        "http://%zz/",
        "",
    };
    for (const auto& url : urls) {
        SCOPED_TRACE(url);
        const std::string line = "requst url '" + url + "' exception: ";
        EXPECT_EQ((Reply{400, ""}), request(*HttpClient::defaultHttpClient(), url));
        EXPECT_EQ(1u, log.count(line));
        EXPECT_EQ((Reply{400, ""}), postSync(url, "{}"));
        EXPECT_EQ(2u, log.count(line));
        EXPECT_EQ(Poco::Message::PRIO_ERROR, log.find(line).getPriority());
        EXPECT_STREQ("src/common/HttpClient", log.find(line).getSourceFile());
    }
    EXPECT_EQ((Reply{200, "hi"}), postSync(live.url("/only"), "{}"));
    EXPECT_EQ(1u, live.awaitRequests(1).size()) << "a refused request reached the server";
}

TEST(HttpClient, GivesUpOnSilentServers) {
    CapturedLog log;
    ScriptedServer silent(staySilent);
    // A full backlog answers no connection attempt.
    const Poco::Net::ServerSocket full(Poco::Net::SocketAddress("127.0.0.1", 0), 1);
    std::vector<Poco::Net::StreamSocket> waiting(8);
    for (auto& socket : waiting) socket.connectNB(full.address());

    EXPECT_EQ((Reply{400, ""}), postSync("http://" + full.address().toString() + "/connect", "{}"));
    EXPECT_EQ((Reply{400, ""}), postSync(silent.url("/receive"), "{}"));
    EXPECT_EQ(1u, log.count("/connect' exception: Timeout"));
    EXPECT_EQ(1u, log.count("/receive' exception: Timeout"));
}

TEST(HttpClient, CallsAThrowingCallbackOnceMore) {
    CapturedLog log;
    ScriptedServer server(kOk);
    std::vector<int> statuses;
    const auto client = HttpClient::defaultHttpClient();
    client->doHttpRequestSync(server.url("/poco"), "{}", [&](auto status, std::istream&) {
        statuses.push_back(status);
        if (status == 200) throw Poco::DataFormatException("not what I wanted");
    });
    EXPECT_EQ((std::vector<int>{200, 400}), statuses);
    EXPECT_EQ(1u, log.count("/poco' exception: Bad data format: not what I wanted"));

    // No POCO exception: neither caught nor told.
    EXPECT_THROW(client->doHttpRequestSync(server.url("/std"), "{}",
                                           [](auto, std::istream&) { throw std::range_error(""); }),
                 std::range_error);
    EXPECT_EQ(0u, log.count("/std"));
}

TEST(HttpClient, SkipsAnEmptyCallbackOnlyAfterSuccess) {
    CapturedLog log;
    ScriptedServer server(kOk);
    const auto client = HttpClient::createInstance();
    client->doHttpRequest(server.url(), nullptr);
    client->doHttpRequestSync(server.url(), "{}", nullptr);
    server.awaitRequests(2);
    EXPECT_EQ(0u, log.count(""));

    client->doHttpRequest("https://nobody/", nullptr);
    EXPECT_TRUE(log.await("bad_function_call"));  // by the pool, on its thread
    EXPECT_THROW(client->doHttpRequestSync("https://nobody/", "", nullptr), std::bad_function_call);
    EXPECT_EQ(2u, log.count("requst url 'https://nobody/'"));
    kel::ThreadPool::defaultPool().stop();  // waits for all that was sent
    EXPECT_EQ(3u, log.count(""));
}

TEST(HttpClient, MayGoWhileItsRequestsRun) {
    std::promise<void> released;
    ScriptedServer server([&](Poco::Net::StreamSocket& connection) {
        released.get_future().wait();
        connection.sendBytes(kOk.data(), static_cast<int>(kOk.size()));
    });
    auto client = HttpClient::createInstance();
    EXPECT_NE(client, HttpClient::createInstance());
    EXPECT_EQ(HttpClient::defaultHttpClient(), HttpClient::defaultHttpClient());
    std::promise<Reply> promise;
    client->doHttpRequest(server.url(), [&](auto status, std::istream& stream) {
        promise.set_value(read(status, stream));
    });
    server.awaitRequests(1);
    client.reset();
    released.set_value();
    EXPECT_EQ((Reply{200, "hi"}), promise.get_future().get());
}

TEST(HttpClient, RefusesMoreThanThePoolTakes) {
    CapturedLog log;
    std::promise<void> release;
    ScriptedServer server([released = release.get_future().share()](auto&) { released.wait(); });
    const auto client = HttpClient::defaultHttpClient();
    std::atomic<int> answered{0};
    for (int i = 0; i < 32; ++i) {
        client->doHttpRequest(server.url(), [&](auto, std::istream&) { ++answered; });
    }
    EXPECT_THROW(client->doHttpRequest(server.url(), [&](auto, std::istream&) { answered += 100; }),
                 Poco::NoThreadAvailableException);
    EXPECT_EQ(1u, log.count("exception: No thread available"));
    server.awaitRequests(32);
    release.set_value();
    kel::ThreadPool::defaultPool().stop();
    EXPECT_EQ(32, answered);
}
