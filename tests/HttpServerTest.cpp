#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/StreamCopier.h>
#include <common/HttpServer.h>
#include <common/WebApiBasic.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <optional>
#include <thread>

#include "CapturedLog.h"
#include "RawHttp.h"

using kel::HttpServer;
using kel::WebApiBasic;
using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;

namespace {

const std::string kNotFound = R"({"code": -1, "msg": "api not found"})";
const std::string kSuccess = R"({"code": 0, "msg": "success"})";
// What POCO sends of its own for a standard reply and for a failed request.
const std::string kPlainHead = "HTTP/1.1 200 OK\r\nDate\r\nConnection: Close\r\n\r\n";
const std::string kFailed = "HTTP/1.1 500 Internal Server Error\r\nConnection: Close\r\n\r\n";

Poco::Net::ServerSocket loopbackSocket() {
    return Poco::Net::ServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0));
}

// A chunked JSON reply on a connection that stays open.
std::string jsonReply(const std::string& body) {
    char length[16];
    std::snprintf(length, sizeof length, "%zX", body.size());
    return "HTTP/1.1 200 OK\r\nDate\r\nConnection: Keep-Alive\r\nTransfer-Encoding: chunked\r\n"
           "Content-Type: application/json\r\n\r\n" +
           std::string(length) + "\r\n" + body + "\r\n0\r\n\r\n";
}

class RunningServer {
public:
    explicit RunningServer(HttpServer::Callback callback)
        : _socket(loopbackSocket()),
          _server(HttpServer::createInstance(_socket, new Poco::Net::HTTPServerParams,
                                             std::move(callback))) {
        _server->start();
    }
    ~RunningServer() { _server->stop(); }
    int port() const { return _socket.address().port(); }
    std::string exchange(const std::string& bytes) const { return rawExchange(port(), bytes); }

private:
    Poco::Net::ServerSocket _socket;
    std::shared_ptr<HttpServer> _server;
};

void sendText(HTTPServerResponse& response, const std::string& text) {
    response.sendBuffer(text.data(), text.size());
}

// The process's web API on a port of this test's.
class WebApi : public testing::Test {
protected:
    WebApi() : api(WebApiBasic::instance()) {}
    ~WebApi() override { api->stop(); }

    void start() {
        const auto socket = loopbackSocket();
        port = socket.address().port();
        api->start(socket);
    }

    std::string get(const std::string& target) const {
        return withoutDate(rawExchange(port, getRequest(target)));
    }

    // On a connection that stays open: only up to the end of the reply.
    std::string getJson(const std::string& target) const {
        return withoutDate(RawClient(port).send(getRequest(target)).readReply());
    }

    std::string post(const std::string& target, const std::string& body) const {
        return withoutDate(RawClient(port).send(postRequest(target, body)).readReply());
    }

    // A connection that has been served once and is kept open.
    RawClient idleConnection() const {
        RawClient client(port);
        client.send(getRequest("/json"));
        EXPECT_EQ(jsonReply(R"({"a":1})"), withoutDate(client.readReply()));
        return client;
    }

    void registJson() {
        api->apiRegist("/json",
                       [](auto&, auto&, const auto&, auto& result) { result.set("a", 1); });
    }

    CapturedLog log;
    std::shared_ptr<WebApiBasic> api;
    int port = 0;
};

}  // namespace

TEST(HttpServer, GivesEveryMethodAndPathToTheOneCallback) {
    const RunningServer server([](HTTPServerRequest& request, HTTPServerResponse& response) {
        sendText(response, request.getMethod() + " " + request.getURI());
    });
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"GET / HTTP/1.1\r\n\r\n", "GET /"},
        {"DELETE /a/b?c=d HTTP/1.1\r\n\r\n", "DELETE /a/b?c=d"},
        {"OPTIONS * HTTP/1.0\r\n\r\n", "OPTIONS *"},
        {"BREW http://pot/ HTTP/1.1\r\nContent-Length: 0\r\n\r\n", "BREW http://pot/"},
    };
    for (const auto& [request, expected] : cases) {
        SCOPED_TRACE(request);
        const std::string reply = RawClient(server.port()).send(request).readReply();
        EXPECT_EQ(expected, reply.substr(reply.find("\r\n\r\n") + 4));
    }
}

TEST(HttpServer, SurvivesCallbacksThatThrowOrSendNothing) {
    const RunningServer empty(nullptr);
    EXPECT_EQ(kFailed, empty.exchange(getRequest("/")));

    const RunningServer server([](HTTPServerRequest& request, HTTPServerResponse& response) {
        const std::string& uri = request.getURI();
        if (uri == "/poco") throw Poco::ApplicationException("no");
        if (uri == "/std") throw std::runtime_error("no");
        if (uri == "/int") throw 42;
        if (uri == "/message") throw Poco::Net::MessageException("no");
        if (uri == "/ok") sendText(response, "ok");
    });
    EXPECT_EQ(kFailed, server.exchange(getRequest("/poco")));
    for (const char* target : {"/std", "/int", "/nothing"}) {
        SCOPED_TRACE(target);
        EXPECT_EQ("", server.exchange(getRequest(target)));  // at once, not after the time-out
    }
    EXPECT_NE("", server.exchange(getRequest("/message")));
    EXPECT_NE(std::string::npos,
              RawClient(server.port()).send(getRequest("/ok")).readReply().find("ok"));
}

TEST(HttpServer, TakesNoBodyForARequest) {
    std::atomic<int> requests{0};
    const RunningServer server([&](HTTPServerRequest& request, HTTPServerResponse& response) {
        ++requests;
        if (request.getURI() == "/read") {
            std::string body;
            Poco::StreamCopier::copyToString(request.stream(), body);
        }
        sendText(response, "ok");
    });
    const std::string hidden = getRequest("/hidden");
    EXPECT_EQ(1u, server.exchange(postRequest("/ignore", hidden)).find("TTP/1.1 200 OK"));
    EXPECT_EQ(1, requests);

    RawClient client(server.port());
    client.send(postRequest("/read", hidden) + getRequest("/next"));
    EXPECT_NE("", client.readReply());
    EXPECT_NE("", client.readReply());
    EXPECT_EQ(3, requests);
}

TEST(HttpServer, RejectsWhatIsNoRequest) {
    const RunningServer server(
        [](HTTPServerRequest&, HTTPServerResponse& response) { sendText(response, "ok"); });
    const std::vector<std::string> cases = {
        "\r\n\r\n",
        "garbage\r\n\r\n",
        std::string("\0\xFF\x16\x03\x01", 5) + "\r\n\r\n",
        "GET " + std::string(20000, 'a') + " HTTP/1.1\r\n\r\n",
        std::string(5000, 'M') + " / HTTP/1.1\r\n\r\n",
        "GET / HTTP/9.123456789\r\n\r\n",
        "GET / HTTP/1.1\r\n" + std::string(20000, 'n') + ": v\r\n\r\n",
        "GET / HTTP/1.1\r\nX: " + std::string(100000, 'v') + "\r\n\r\n",
        "POST / HTTP/1.1\r\nContent-Length: many\r\n\r\n",
    };
    for (const auto& bytes : cases) {
        SCOPED_TRACE(bytes.substr(0, 40));
        RawClient client(server.port());
        std::string reply;
        try {
            client.send(bytes);
            client.socket().shutdownSend();
            reply = client.readAll();
        } catch (const Poco::Net::NetException&) {
            // The server had closed before it got everything.
        }
        EXPECT_EQ(std::string::npos, reply.find("ok")) << reply;
        EXPECT_NE(std::string::npos,
                  RawClient(server.port()).send(getRequest("/")).readReply().find("ok"));
    }
}

TEST_F(WebApi, AnswersTheFourShapesByteForByte) {
    api->apiRegist("/plain");
    api->apiRegist("/raw", [](HTTPServerRequest&, HTTPServerResponse& response,
                              const WebApiBasic::ApiParams&) { response.send() << "raw"; });
    api->apiRegist("/json", [](auto&, auto&, const auto& params, auto& result) {
        for (const auto& [name, value] : params) result.set(name, value);
    });
    api->apiRegist("/body", [](auto&, auto&, const auto&, auto& result, const auto& body) {
        result.set("got", body.get("b"));
    });
    start();
    EXPECT_EQ(kPlainHead + kSuccess, get("/plain"));
    EXPECT_EQ(kPlainHead + "raw", get("/raw"));
    EXPECT_EQ(jsonReply(R"({"x":"1","y":"a b","z":""})"), getJson("/json?y=a+b&x=1&x=2&z"));
    EXPECT_EQ(jsonReply(R"({"got":[1,"ä"]})"), post("/body", R"({"b":[1,"ä"]})"));
    EXPECT_EQ(jsonReply(R"({"x":"1"})"), post("/json?x=1", "ignored"));
    EXPECT_EQ(3u, log.count("web api regist: /"));
    EXPECT_EQ(0u, log.count("web api regist: /plain"));
    EXPECT_EQ(Poco::Message::PRIO_INFORMATION, log.find("web api regist: /raw").getPriority());
    EXPECT_STREQ("src/common/WebApiBasic", log.find("web api regist: /raw").getSourceFile());
}

TEST_F(WebApi, MatchesWholeDecodedPaths) {
    api->apiRegist(
        "/a", [](auto&, auto& response, const WebApiBasic::ApiParams&) { response.send() << "a"; });
    api->apiRegist("/a b", [](auto&, auto& response, const WebApiBasic::ApiParams&) {
        response.send() << "blank";
    });
    start();
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/a", "a"},           {"/a?q=/b#f", "a"},  {"http://other:1/a", "a"},
        {"/%61", "a"},         {"/a%20b", "blank"}, {"/a/", kNotFound},
        {"/A", kNotFound},     {"/aa", kNotFound},  {"/?a", ""},
        {"?", kNotFound},      {"*", kNotFound},    {"/index/api/getApiList", ""},
        {"/a%2Fb", kNotFound}, {"/a+b", kNotFound}, {"/", ""},
    };
    for (const auto& [target, expected] : cases) {
        SCOPED_TRACE(target);
        EXPECT_EQ(expected.empty() ? "" : kPlainHead + expected, get(target));
    }
    EXPECT_EQ(2u, log.count("")) << "neither unknown paths nor the built-in ones are logged";
    EXPECT_EQ(kPlainHead + "a", withoutDate(rawExchange(port, postRequest("/a", ""))));
}

TEST_F(WebApi, KeepsTheLastRouteOfAPath) {
    const auto answering = [](const char* text) {
        return [text](auto&, auto& response, const WebApiBasic::ApiParams&) {
            response.send() << text;
        };
    };
    api->apiRegist("/twice", answering("first"));
    api->apiRegist("/twice", answering("second"));
    api->apiRegist("/", answering("too early"));
    start();
    EXPECT_EQ(kPlainHead + "second", get("/twice"));
    EXPECT_EQ("", get("/"));
    api->apiRegist("/", answering("mine"));
    api->apiRegist("/index/api/getApiList", answering("list"));
    EXPECT_EQ(kPlainHead + "mine", get("/"));
    EXPECT_EQ(kPlainHead + "list", get("/index/api/getApiList"));
}

TEST_F(WebApi, KeepsTheStateOfAHandlerBetweenRequests) {
    api->apiRegist("/count", [n = 0](auto&, auto&, const auto&, auto& result) mutable {
        result.set("n", ++n);
    });
    start();
    EXPECT_EQ(jsonReply(R"({"n":1})"), getJson("/count"));
    EXPECT_EQ(jsonReply(R"({"n":2})"), getJson("/count"));
}

TEST_F(WebApi, LeavesAnEmptyResultToTheHandler) {
    api->apiRegist("/own", [](auto&, auto& response, const auto&, Poco::JSON::Object&) {
        response.setStatus(Poco::Net::HTTPResponse::HTTP_ACCEPTED);
        response.send() << "mine";
    });
    api->apiRegist("/none", [](auto&, auto&, const auto&, Poco::JSON::Object&) {});
    start();
    const std::string own = getJson("/own");
    EXPECT_EQ(0u, own.find("HTTP/1.1 202 ")) << own;
    EXPECT_NE(std::string::npos, own.find("\r\n\r\n4\r\nmine\r\n0\r\n\r\n")) << own;
    EXPECT_EQ("", get("/none"));
}

TEST_F(WebApi, AnswersEmptyHandlersAsUnknown) {
    api->apiRegist("/json", WebApiBasic::ApiJsonHandler());
    api->apiRegist("/body", WebApiBasic::ApiJsonBodyHandler());
    api->apiRegist("/raw", WebApiBasic::ApiHandler());
    start();
    EXPECT_EQ(jsonReply(kNotFound), getJson("/json"));
    EXPECT_EQ(jsonReply(kNotFound), post("/body", "{}"));
    EXPECT_EQ("", get("/raw"));
    EXPECT_EQ(1u, log.count("bad_function_call"));
}

TEST_F(WebApi, LogsAndPassesOnWhatHandlersThrow) {
    const auto thrower = [](const auto& params) {
        const std::string& what = params.at("what");
        if (what == "poco") throw Poco::ApplicationException("poco failed");
        if (what == "int") throw 42;
        throw std::runtime_error("std failed");
    };
    api->apiRegist("/raw", [=](auto&, auto&, const WebApiBasic::ApiParams& p) { thrower(p); });
    api->apiRegist("/json", [=](auto&, auto&, const auto& p, Poco::JSON::Object& result) {
        result.set("never", "sent");
        thrower(p);
    });
    api->apiRegist("/body", [=](auto&, auto&, const auto& p, auto&, const Poco::JSON::Object&) {
        thrower(p);
    });
    start();
    // {what is thrown, its line, the client's reply}; the JSON shapes log it a second time.
    const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
        {"poco", "Application exception: poco failed", kFailed},
        {"std", "std failed", ""},
        {"int", "unknown exception", ""},
    };
    for (const auto& [what, line, reply] : cases) {
        SCOPED_TRACE(what);
        EXPECT_EQ(reply, get("/raw?what=" + what));
        EXPECT_EQ(1u, log.count(line));
        EXPECT_EQ(reply, get("/json?what=" + what));
        EXPECT_EQ(3u, log.count(line));
        EXPECT_EQ(reply, post("/body?what=" + what, "{}"));
        EXPECT_EQ(5u, log.count(line));
        EXPECT_EQ(Poco::Message::PRIO_ERROR, log.find(line).getPriority());
        EXPECT_EQ(line, log.find(line).getText());
    }
    EXPECT_EQ("", get("/raw"));  // out of params.at()
    EXPECT_EQ(kPlainHead + kNotFound, get("/unharmed"));
}

TEST_F(WebApi, RefusesBodiesThatAreNoJsonObject) {
    std::atomic<int> calls{0};
    api->apiRegist("/body",
                   [&](auto&, auto&, const auto&, auto&, const Poco::JSON::Object&) { ++calls; });
    start();
    const std::string deep(100000, '[');
    const std::string deepObjects = [] {
        std::string text;
        for (int i = 0; i < 100000; ++i) text += "{\"a\":";
        return text;
    }();
    const std::vector<std::string> bodies = {
        "",     "   ",         "[]",
        "[1]",  "null",        "true",
        "12",   "\"text\"",    "nonsense",
        "{",    "{\"a\"",      "{\"a\":1",
        "{}{}", "{\"a\":1} x", "{'a':1}",
        deep,   deepObjects,   std::string("{\"a\":\"\xFF\xFE\0\"}", 10)};
    std::size_t logged = log.count("");
    for (const auto& body : bodies) {
        SCOPED_TRACE(body.substr(0, 20));
        EXPECT_EQ(kFailed, post("/body", body));
        EXPECT_EQ(++logged, log.count(""));  // once, by the dispatcher
    }
    EXPECT_EQ(2u, log.count("Bad cast exception: Can not convert "));
    EXPECT_EQ(2u, log.count("Maximum depth exceeded"));
    EXPECT_EQ(0, calls);
}

TEST_F(WebApi, RefusesUnparsableTargets) {
    api->apiRegist("/a");
    start();
    EXPECT_EQ(kFailed, get("/%zz"));
    EXPECT_EQ(0u, log.count("")) << "nor logged, having no path";
}

TEST_F(WebApi, BoundsTheBodiesItReads) {
    std::promise<std::size_t> size;
    api->apiRegist("/body", [&](auto&, auto&, const auto&, auto&, const auto& body) {
        size.set_value(body.template getValue<std::string>("a").size());
    });
    start();
    // Refused by its length alone: nothing of the body is ever sent.
    EXPECT_EQ(kFailed, rawExchange(port, "POST /body HTTP/1.1\r\nContent-Length: 8388609\r\n\r\n"));
    EXPECT_EQ(1u, log.count("body is longer than 8 MiB"));

    // Chunks without end: the server closes, whether or not its reply still gets through.
    RawClient endless(port);
    endless.send("POST /body HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n");
    const std::string chunk = "10000\r\n" + std::string(0x10000, ' ') + "\r\n";
    EXPECT_THROW(
        {
            for (int i = 0; i < 4096; ++i) endless.send(chunk);
        },
        Poco::IOException);
    EXPECT_TRUE(log.await("body is longer than 8 MiB", 2));

    // Without a length there is no body to wait for.
    EXPECT_EQ(kFailed, rawExchange(port, "POST /body HTTP/1.1\r\n\r\n"));

    const std::string longest = "{\"a\":\"" + std::string(8 * 1024 * 1024 - 8, 'x') + "\"}";
    RawClient client(port);
    client.send(postRequest("/body", longest));
    EXPECT_EQ(longest.size() - 8, size.get_future().get());
}

TEST_F(WebApi, TakesABodyByteByByteAndOneThatBreaksOff) {
    api->apiRegist("/body", [](auto&, auto&, const auto&, auto& result, const auto& body) {
        result.set("n", body.size());
    });
    start();
    RawClient slow(port);
    for (const char byte : postRequest("/body", R"({"a":1,"b":2})")) slow.send({byte});
    EXPECT_EQ(jsonReply(R"({"n":2})"), withoutDate(slow.readReply()));

    for (const std::string framing : {"Content-Length: 100", "Transfer-Encoding: chunked"}) {
        SCOPED_TRACE(framing);
        const std::size_t logged = log.count("");
        RawClient broken(port);
        broken.send("POST /body HTTP/1.1\r\n" + framing + "\r\n\r\n64\r\n{\"a\":");
        broken.socket().shutdownSend();
        EXPECT_EQ(kFailed, broken.readAll());
        EXPECT_EQ(logged + 1, log.count(""));
    }
}

TEST_F(WebApi, StartsOnceAndForgetsItsRoutesOnStop) {
    registJson();
    start();
    try {
        api->start(loopbackSocket());
        FAIL() << "started twice";
    } catch (const Poco::LogicException& exc) {
        EXPECT_EQ(0, exc.code());
        EXPECT_EQ("", exc.message());
    }
    RawClient open = idleConnection();
    api->stop();
    api->stop();
    EXPECT_EQ("", open.send(getRequest("/json")).readAll());
    EXPECT_THROW(RawClient{port}.send(getRequest("/")).readAll(), Poco::Exception);

    api->apiRegist("/new");
    start();
    EXPECT_EQ(kPlainHead + kNotFound, get("/json"));
    EXPECT_EQ(kPlainHead + kSuccess, get("/new"));
    EXPECT_EQ("", get("/index/api/getApiList"));
}

TEST_F(WebApi, KeepsAHandlerAliveWhileItRuns) {
    std::promise<void> entered, release;
    auto token = std::make_shared<int>(7);
    const std::weak_ptr<int> watched = token;
    api->apiRegist("/slow", [&, token = std::move(token)](auto&, auto&, const auto&, auto& result) {
        entered.set_value();
        release.get_future().wait();
        result.set("token", *token);
    });
    start();
    RawClient client(port);
    client.send(getRequest("/slow"));
    entered.get_future().wait();
    api->apiRegist("/slow");
    api->stop();
    EXPECT_FALSE(watched.expired());
    release.set_value();
    EXPECT_EQ(jsonReply(R"({"token":7})"), withoutDate(client.readReply()));
}

TEST_F(WebApi, MayBeStoppedByItsOwnHandler) {
    api->apiRegist("/stop", [this](auto&, auto&, const auto&, auto& result) {
        api->stop();
        result.set("stopped", true);
    });
    start();
    EXPECT_EQ(jsonReply(R"({"stopped":true})"), getJson("/stop"));
    start();
    EXPECT_EQ(kPlainHead + kNotFound, get("/stop"));
}

TEST_F(WebApi, ServesNewClientsAfterARestartUnderIdleOnes) {
    std::vector<RawClient> idle;
    for (int round = 0; round < 3; ++round) {
        registJson();
        start();
        // As many as POCO's pool has threads; each holds one until it is closed.
        for (int i = 0; i < 16; ++i) idle.push_back(idleConnection());
        api->stop();
    }
    registJson();
    start();
    EXPECT_EQ(jsonReply(R"({"a":1})"), getJson("/json"));
}

TEST_F(WebApi, IsSafeToChangeUnderLoad) {
    std::atomic<bool> done{false};
    std::atomic<int> answered{0};
    std::atomic<int> current{0};
    registJson();
    start();
    current = port;
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i) {
        clients.emplace_back([&] {
            while (!done) {
                try {
                    RawClient client(current);
                    for (int n = 0; n < 5; ++n) {
                        if (client.send(getRequest("/json")).readReply().empty()) break;
                        ++answered;
                    }
                } catch (const Poco::Exception&) {
                    // Between stop and start nobody listens.
                }
            }
        });
    }
    for (int round = 0; round < 20; ++round) {
        const int before = answered;
        for (int i = 0; i < 50; ++i) {
            registJson();
            api->apiRegist("/other" + std::to_string(i));
        }
        while (answered < before + 20) std::this_thread::yield();
        api->stop();
        registJson();
        start();
        current = port;
    }
    done = true;
    for (auto& client : clients) client.join();
    EXPECT_GE(answered, 400);
}
