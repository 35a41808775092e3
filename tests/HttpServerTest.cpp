#include <Poco/Exception.h>
#include <Poco/NumberFormatter.h>
#include <common/HttpServer.h>
#include <common/WebApiBasic.h>
#include <gtest/gtest.h>

#include "CapturedLog.h"
#include "RawHttp.h"

using Params = kel::WebApiBasic::ApiParams;
using Poco::Net::ServerSocket;

namespace {

const std::string kPlain = "HTTP/1.1 200 OK\r\nDate\r\nConnection: Close\r\n\r\n";
const std::string kNotFound = R"({"code": -1, "msg": "api not found"})";
const std::string kFailed = "HTTP/1.1 500 Internal Server Error\r\nConnection: Close\r\n\r\n";
const std::string kBody = R"({"b":[1,"ä"]})";

std::string jsonReply(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nDate\r\nConnection: Keep-Alive\r\nTransfer-Encoding: chunked\r\n"
           "Content-Type: application/json\r\n\r\n" +
           Poco::NumberFormatter::formatHex(body.size()) + "\r\n" + body + "\r\n0\r\n\r\n";
}

void throwAsAsked(const Params& params) {
    if (params.count("poco")) throw Poco::ApplicationException("no");
    if (params.count("std")) throw std::runtime_error("std failed");
    if (params.count("int")) throw 42;
}

// The process's web API with a route of each shape.
class WebApi : public testing::Test {
protected:
    WebApi() { start(); }
    ~WebApi() override { api->stop(); }

    void start() {
        api->apiRegist("/plain");
        api->apiRegist("/raw", [](auto&, auto& response, const Params& params) {
            throwAsAsked(params);
            response.send() << "raw";
        });
        api->apiRegist("/json", [n = 0](auto&, auto&, const auto& params, auto& result) mutable {
            throwAsAsked(params);
            for (const auto& [name, value] : params) result.set(name, value);
            if (params.count("n")) result.set("n", ++n);
        });
        api->apiRegist("/body", [](auto&, auto&, const auto& params, auto& result, auto& body) {
            throwAsAsked(params);
            result.set("got", body.get("b"));
        });
        const ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
        port = socket.address().port();
        api->start(socket);
    }

    std::string get(const std::string& target) { return rawExchange(port, getRequest(target)); }
    std::string post(const std::string& target, const std::string& body) {
        return rawExchange(port, postRequest(target, body));
    }

    CapturedLog log;
    const std::shared_ptr<kel::WebApiBasic> api = kel::WebApiBasic::instance();
    std::atomic<int> port{0};
};

}  // namespace

TEST_F(WebApi, AnswersByteForByte) {
    EXPECT_EQ(3u, log.count("web api regist: ")) << "of routes with a handler";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/plain", kPlain + R"({"code": 0, "msg": "success"})"},
        {"http://other:1/r%61w?q=/b#f", kPlain + "raw"},
        {"/json?y=a+b&x=1&x=2&z", jsonReply(R"({"x":"1","y":"a b","z":""})")},
        {"/json?n", jsonReply(R"({"n":1})")},
        {"/json?n", jsonReply(R"({"n":2})")},
        {"/json", ""},  // an empty result is the handler's to send
        {"/raw/", kPlain + kNotFound},
        {"/RAW", kPlain + kNotFound},
        {"*", kPlain + kNotFound},
        {"/%zz", kFailed},
        {"/", ""},
        {"/index/api/getApiList", ""},
    };
    for (const auto& [target, reply] : cases) EXPECT_EQ(reply, get(target)) << target;
    EXPECT_EQ(jsonReply(R"({"got":[1,"ä"]})"), post("/body", kBody));
    EXPECT_EQ(3u, log.count("")) << "none of these is logged";
    api->apiRegist("/", kel::WebApiBasic::ApiJsonHandler());
    EXPECT_EQ(jsonReply(kNotFound), get("/"));
}

TEST_F(WebApi, LogsAndPassesOnWhatHandlersThrow) {
    const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
        {"poco", "Application exception: no", kFailed},
        {"std", "std failed", ""},
        {"int", "unknown exception", ""}};
    for (const auto& [what, line, reply] : cases) {
        EXPECT_EQ(reply, get("/raw?" + what));
        EXPECT_EQ(reply, get("/json?" + what));
        EXPECT_EQ(reply, post("/body?" + what, kBody));
        EXPECT_EQ(5u, log.count(line)) << "the JSON shapes log it twice";
    }
}

TEST_F(WebApi, RefusesBodiesThatAreNoJsonObjectOrEndless) {
    const std::string start = "POST /body HTTP/1.1\r\n", chunked = "Transfer-Encoding: chunked\r\n";
    std::vector<std::string> requests = {
        start + "\r\n",  // nothing of a body ever comes, neither here nor next
        start + "Content-Length: 8388609\r\n\r\n", postRequest("/body", std::string(100000, '['))};
    for (const char* body :
         {"", " ", "[1]", "null", "12", "\"b\"", "text", "{\"b\":1", "{}{}", "{\"b\":\"\xFF"}) {
        requests.push_back(postRequest("/body", body));
    }
    std::size_t logged = log.count("");
    for (const auto& request : requests) {
        EXPECT_EQ(kFailed, rawExchange(port, request)) << request.substr(0, 80);
        EXPECT_EQ(++logged, log.count(""));
    }
    for (const auto& framing : {std::string("Content-Length: 100\r\n"), chunked}) {
        RawClient brokenOff(port);
        brokenOff.send(start + framing + "\r\n64\r\n{\"b\":").socket().shutdownSend();
        EXPECT_EQ(kFailed, brokenOff.readReply());
    }
    RawClient endless(port);
    endless.send(start + chunked + "\r\n");
    const std::string chunk = "10000\r\n" + std::string(0x10000, ' ') + "\r\n";
    const auto sendOn = [&] {
        for (int i = 0; i < 4096; ++i) endless.send(chunk);
    };
    EXPECT_THROW(sendOn(), Poco::IOException);
    EXPECT_TRUE(log.await("body is longer than 8 MiB", 2));
}

TEST_F(WebApi, RejectsWhatIsNoRequestAndTakesNoBodyForOne) {
    const std::vector<std::string> cases = {
        "garbage\r\n\r\n",
        std::string("\0\xFF\x16\x03\x01", 5) + "\r\n\r\n",
        getRequest("/raw" + std::string(20000, 'a')),
        std::string(5000, 'M') + " /raw\r\n\r\n",
        "GET /raw HTTP/1.1\r\nX: " + std::string(100000, 'v') + "\r\n\r\n",
        "POST /body HTTP/1.1\r\nContent-Length: many\r\n\r\n" + kBody};
    for (const auto& bytes : cases) {
        std::string reply;
        try {
            RawClient client(port);
            client.send(bytes).socket().shutdownSend();
            reply = client.readReply();
        } catch (const Poco::IOException&) {
            // The server had closed before it got everything.
        }
        EXPECT_EQ(std::string::npos, reply.find(" 200 OK")) << bytes.substr(0, 40);
        EXPECT_EQ(kPlain + "raw", get("/raw"));
    }
    RawClient unread(port);
    EXPECT_NE("", unread.send(postRequest("/json?x=1", getRequest("/json?n"))).readReply());
    EXPECT_EQ("", unread.readReply());
}

TEST_F(WebApi, StopsFromAHandlerForgetsItsRoutesAndServesNewClientsAfterwards) {
    const auto token = std::make_shared<int>();
    std::vector<RawClient> idle;
    for (std::size_t round = 0; round < 3; ++round) {
        EXPECT_THROW(api->start(ServerSocket()), Poco::LogicException);
        api->apiRegist("/stop", [this, token](auto&, auto&, const auto&, auto& result) {
            api->stop();
            result.set("held", token.use_count());
        });
        // As many as POCO's pool has threads; each holds one until it is closed.
        for (int i = 0; i < 16; ++i) {
            idle.emplace_back(port);
            EXPECT_NE("", idle.back().send(getRequest("/json?x=1")).readReply());
        }
        EXPECT_EQ(jsonReply(R"({"held":2})"), idle.back().send(getRequest("/stop")).readReply());
        api->stop();
        EXPECT_EQ("", idle[16 * round].send(getRequest("/plain")).readReply());
        EXPECT_THROW(get("/"), Poco::Exception);
        start();
        EXPECT_EQ(kPlain + kNotFound, get("/stop"));
    }
}

TEST_F(WebApi, IsSafeToChangeUnderLoad) {
    std::atomic<bool> done{false};
    std::atomic<int> answered{0};
    const auto askUntilDone = [&] {
        while (!done) {
            try {
                RawClient client(port);
                while (!client.send(getRequest("/json?x=1")).readReply().empty()) ++answered;
            } catch (const Poco::Exception&) {
                // Between stop and start nobody listens.
            }
        }
    };
    std::vector<std::future<void>> clients;
    for (int i = 0; i < 4; ++i) clients.push_back(std::async(std::launch::async, askUntilDone));
    for (int round = 0; round < 10; ++round) {
        const int enough = answered + 20;
        for (int i = 0; i < 50; ++i) api->apiRegist("/" + std::to_string(i));
        EXPECT_TRUE(await([&] { return answered >= enough; }));
        api->stop();
        start();
    }
    done = true;
    api->stop();  // which ends the clients' connections
}

TEST_F(WebApi, LetsGoWhatCallbacksCapturedAtOnceAndWithNoLockHeld) {
    int gone = 0;
    const auto whenGone = [&](std::function<void()> stop) {
        return [held = std::shared_ptr<void>(nullptr, [&gone, stop](void*) { stop(), ++gone; })](
                   auto&, auto&, const auto&...) {};
    };
    api->stop();
    for (const char* path : {"/", "/other"}) {
        api->apiRegist(path, kel::WebApiBasic::ApiHandler(whenGone([&] { api->stop(); })));
    }
    start();  // replaces one, whose end forgets the other
    EXPECT_EQ(2, gone);

    const auto make = [](kel::HttpServer::Callback callback) {
        const ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
        return kel::HttpServer::createInstance(socket, new Poco::Net::HTTPServerParams, callback);
    };
    auto inner = make(nullptr);
    make(whenGone([&] { inner.reset(); }));
    EXPECT_EQ(nullptr, inner);
}
