#include <Poco/NumberFormatter.h>
#include <common/HttpServer.h>
#include <common/WebApiBasic.h>
#include <gtest/gtest.h>

#include "Await.h"
#include "CapturedLog.h"
#include "RawHttp.h"

using Poco::Net::ServerSocket;

namespace {

const std::string kPlain = "HTTP/1.1 200 OK\r\nDate\r\nConnection: Close\r\n\r\n";
const std::string kBadRequest = "HTTP/1.1 400 Bad Request\r\nConnection: Close\r\n\r\n";
const std::string kNotFound = R"({"code": -1, "msg": "api not found"})";
const std::string kFailed = "HTTP/1.1 500 Internal Server Error\r\nConnection: Close\r\n\r\n";

std::string jsonReply(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nDate\r\nConnection: Keep-Alive\r\nTransfer-Encoding: chunked\r\n"
           "Content-Type: application/json\r\n\r\n" +
           Poco::NumberFormatter::formatHex(body.size()) + "\r\n" + body + "\r\n0\r\n\r\n";
}

std::string repeated(const std::string& text, int times) {
    std::string all;
    for (int i = 0; i < times; ++i) all += text;
    return all;
}

std::string standardReply(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nDate\r\nConnection: Keep-Alive\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

// The process's web API with a route of each shape.
class WebApi : public testing::Test {
protected:
    WebApi() { start(); }
    ~WebApi() override { api->stop(); }

    void start() {
        api->apiRegist("/plain");
        api->apiRegist("/raw", [](auto&, auto& response, auto&) { response.send() << "raw"; });
        api->apiRegist("/json", [n = 0](auto&, auto&, const auto& params, auto& result) mutable {
            for (const auto& [name, value] : params) result.set(name, value);
            if (params.count("n")) result.set("n", ++n);
        });
        api->apiRegist("/body", [](auto&, auto&, auto&, auto& result, auto& body) {
            result.set("got", body.get("b"));
        });
        const ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
        port = socket.address().port();
        api->start(socket);
    }

    std::string get(const std::string& target) { return exchange(request("GET " + target)); }

    // The reply to `bytes`, which nothing follows; "" where the server closes before it has them.
    std::string exchange(const std::string& bytes) {
        try {
            RawClient client(port);
            client.send(bytes).shutdownSend();
            return client.read();
        } catch (const Poco::IOException&) {
            return "";
        }
    }

    CapturedLog log;
    const std::shared_ptr<kel::WebApiBasic> api = kel::WebApiBasic::instance();
    std::atomic<Poco::UInt16> port{0};
};

}  // namespace

TEST_F(WebApi, AnswersByteForByteAndLogsWhatHandlersThrow) {
    EXPECT_EQ(3u, log.count("web api regist: ")) << "of routes with a handler";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/plain", standardReply(R"({"code": 0, "msg": "success"})")},
        {"http://other:1/r%61w?q=/b#f", kPlain + "raw"},
        {"/json?y=a+b&x=1&x=2&z&n", jsonReply(R"({"n":1,"x":"1","y":"a b","z":""})")},
        {"/json?n", jsonReply(R"({"n":2})")},
        {"/json", ""},  // an empty result is the handler's to send
        {"/raw/", standardReply(kNotFound)},
        {"/%zz", kFailed},
        {"/", ""},
        {"/index/api/getApiList", ""},
    };
    for (const auto& [target, reply] : cases) EXPECT_EQ(reply, get(target)) << target;
    EXPECT_EQ(jsonReply(R"({"got":[1,"ä"]})"), exchange(request("POST /body", R"({"b":[1,"ä"]})")));
    EXPECT_EQ(3u, log.count("")) << "none of these is logged";

    api->apiRegist("/raw", [](auto&, auto&, auto&) { throw 42; });
    api->apiRegist("/json", [](auto&, auto&, auto&, auto&) { throw Poco::IOException("no"); });
    EXPECT_EQ("", get("/raw"));
    EXPECT_EQ(kFailed, get("/json"));
    EXPECT_EQ(1u, log.count("unknown exception"));
    EXPECT_EQ(2u, log.count("I/O error: no")) << "the JSON shapes log it twice";
}

TEST_F(WebApi, RefusesWhatIsNoRequestAndBodiesThatAreNoJsonObject) {
    const std::string post = "POST /body HTTP/1.1\r\n";
    const std::string chunked = post + "Transfer-Encoding: chunked\r\n\r\n";
    for (const auto& bytes :
         {chunked + "64\r\n{\"b\":", post + "Content-Length: 100\r\n\r\n{\"b\":"}) {
        EXPECT_EQ(kBadRequest, exchange(bytes)) << bytes;
    }
    std::vector<std::string> requests = {post + "Content-Length: 8388609\r\n\r\n"};
    const std::vector<std::string> bodies = {"",
                                             "[1]",
                                             "null",
                                             "\"b\"",
                                             "{\"b\":1",
                                             "{}{}",
                                             "{\"b\":\"\xFF",
                                             std::string(100000, '['),
                                             "{\"b\":[{}" + repeated(",{}", 100'000) + "]}"};
    for (const auto& body : bodies) requests.push_back(request("POST /body", body));
    for (const auto& bytes : requests) EXPECT_EQ(kFailed, exchange(bytes)) << bytes.substr(0, 80);
    EXPECT_EQ(kFailed, RawClient(port).send(post + "\r\n").read()) << "waits for a body";
    EXPECT_EQ("", exchange(chunked + "7000000\r\n" + std::string(0x7000000, ' ')));
    EXPECT_TRUE(log.await("body is longer than 8 MiB", 2));
    EXPECT_EQ(3 + requests.size() + 4, log.count("")) << "each is one line";

    for (const std::string& bytes :
         {std::string("\x16\x03\x01\xFF\r\n\r\n"), post + "Content-Length: many\r\n\r\n{}",
          request("GET /raw", "", std::string(100000, 'v') + ": v\r\n")})
        EXPECT_EQ(std::string::npos, exchange(bytes).find(" 200 OK")) << bytes.substr(0, 80);
    RawClient unread(port);
    unread.send(request("POST /json?x=1", request("GET /json?n")));
    EXPECT_EQ(jsonReply(R"({"x":"1"})"), unread.read());
    EXPECT_EQ("", unread.read()) << "takes a body for a request";
}

TEST_F(WebApi, StopsFromAHandlerForgetsItsRoutesAndServesNewClientsAfterwards) {
    const auto token = std::make_shared<int>();
    std::vector<RawClient> idle;
    for (int round = 0; round < 3; ++round) {
        EXPECT_THROW(api->start(ServerSocket()), Poco::LogicException);
        api->apiRegist("/stop", [this, token](auto&, auto&, const auto&, auto& result) {
            api->stop();
            result.set("held", token.use_count());
        });
        // As many as POCO's pool has threads; each holds one until it is closed.
        for (int i = 0; i < 16; ++i) idle.emplace_back(port).send(request("GET /json?x=1")).read();
        EXPECT_EQ(jsonReply(R"({"held":2})"), idle.back().send(request("GET /stop")).read());
        EXPECT_EQ("", idle.end()[-16].send(request("GET /plain")).read());
        EXPECT_THROW(RawClient{port}, Poco::Exception);
        start();
        EXPECT_EQ(standardReply(kNotFound), get("/stop"));
    }
}

TEST_F(WebApi, IsSafeToChangeUnderLoad) {
    std::atomic<int> answered{0};
    std::vector<std::jthread> clients(4);
    for (auto& client : clients)
        client = std::jthread([&](std::stop_token end) {
            while (!end.stop_requested()) answered += get("/json?x=1") != "";
        });
    for (int round = 0; round < 10; ++round) {
        for (int i = 0; i < 50; ++i) api->apiRegist("/" + std::to_string(i));
        EXPECT_TRUE(await([&, enough = answered + 20] { return answered >= enough; }));
        api->stop();
        start();
    }
}

TEST_F(WebApi, LetsGoWhatCallbacksCapturedAtOnceAndWithNoLockHeld) {
    const auto whenGone = [](std::function<void()> stop) {
        return [held = std::shared_ptr<void>(nullptr, std::bind(stop))](auto&&...) {};
    };
    int gone = 0;
    api->stop();
    for (const char* path : {"/", "/other"})
        api->apiRegist(path, kel::WebApiBasic::ApiHandler(whenGone([&] { api->stop(), ++gone; })));
    start();  // replaces one, whose end forgets the other
    EXPECT_EQ(2, gone);

    const ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    const Poco::AutoPtr<Poco::Net::HTTPServerParams> params(new Poco::Net::HTTPServerParams);
    auto inner = kel::HttpServer::createInstance(socket, params, nullptr);
    kel::HttpServer::createInstance(socket, params, whenGone([&] { inner.reset(); }));
    EXPECT_EQ(nullptr, inner);
}
