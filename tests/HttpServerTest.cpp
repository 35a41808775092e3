#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequestImpl.h>
#include <Poco/Net/WebSocket.h>
#include <Poco/NumberFormatter.h>
#include <Poco/StreamCopier.h>
#include <common/HttpServer.h>
#include <common/Library.h>
#include <common/WebApiBasic.h>
#include <common/internal/http/ConnectionServer.h>
#include <gtest/gtest.h>

#include "Await.h"
#include "CapturedLog.h"
#include "RawHttp.h"

using Poco::Net::ServerSocket;
using namespace std::chrono_literals;

namespace {

const std::string kPlain = "HTTP/1.1 200 OK\r\nDate\r\nConnection: Close\r\n\r\n";
const std::string kBadRequest = "HTTP/1.1 400 Bad Request\r\nConnection: Close\r\n\r\n";
const std::string kNotFound = R"({"code": -1, "msg": "api not found"})";
const std::string kUnavailable =
    "HTTP/1.1 503 Service Unavailable\r\nConnection: Close\r\nRetry-After: 1\r\n"
    "Content-Length: 0\r\n\r\n";
const std::string kFailed = "HTTP/1.1 500 Internal Server Error\r\nConnection: Close\r\n\r\n";

std::string jsonReply(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nDate\r\nConnection: Keep-Alive\r\nTransfer-Encoding: chunked\r\n"
           "Content-Type: application/json\r\n\r\n" +
           Poco::NumberFormatter::formatHex(body.size()) + "\r\n" + body + "\r\n0\r\n\r\n";
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

// A server of two threads and one queued connection that loses its patience soon. Its callback
// reads the body, answers with its length and notes the request; "/hold" waits for `release` first.
class BoundedServer : public testing::Test {
protected:
    using Request = Poco::Net::HTTPServerRequest;
    using Response = Poco::Net::HTTPServerResponse;

    BoundedServer() {
        params->setMaxThreads(2);
        params->setMaxQueued(1);
        params->setKeepAliveTimeout(Poco::Timespan(1, 0, 0, 0, 0));
    }
    ~BoundedServer() override {
        release();
        if (!server) return;
        server->stop();
        server->abortConnections();
        EXPECT_TRUE(server->awaitRequestsInProgress(std::chrono::steady_clock::now() + kLong));
        EXPECT_TRUE(kel::ConnectionServer::threads().joinAll(kLong));
    }

    void start(const kel::ServerTimes& times = {}) {
        const auto callback = std::make_shared<const kel::HttpConnection::Callback>(
            [this](auto& request, auto& response) { answer(request, response); });
        server = std::make_shared<kel::ConnectionServer>(socket, params, callback, times);
        server->start();
    }

    void answer(Request& request, Response& response) {
        std::string body;
        Poco::StreamCopier::copyToString(request.stream(), body);
        note(request.getURI());
        if (request.getURI() == "/hold") released.wait();
        if (request.getURI() == "/endless") body.assign(64 << 20, 'x');
        if (!request.stream().bad()) response.sendBuffer(body.data(), body.size());
    }

    void note(const std::string& target) {
        const std::lock_guard<std::mutex> lock(mutex);
        served += target + " ";
    }

    // The targets that reached the callback since the last call.
    std::string takeServed() {
        const std::lock_guard<std::mutex> lock(mutex);
        return std::exchange(served, "");
    }

    void release() {
        if (!std::exchange(isReleased, true)) gate.set_value();
    }

    RawClient connect() const { return RawClient(socket.address().port()); }

    // All that comes back until the server closes.
    static std::string readAll(RawClient& client) {
        std::string all;
        for (std::string more = client.read(); !more.empty(); more = client.read()) all += more;
        return all;
    }

    // Sends `byte` again and again, until there is an answer or a long time has passed.
    static std::string drip(RawClient client, const std::string& begin, const std::string& byte) {
        client.send(begin);
        for (int i = 0; i < 200 && !client.poll(Poco::Timespan(0, 50'000), RawClient::SELECT_READ);
             ++i) {
            client.send(byte);
        }
        return client.read();
    }

    static constexpr std::chrono::seconds kLong{20};

    const ServerSocket socket{Poco::Net::SocketAddress("127.0.0.1", 0)};
    Poco::AutoPtr<Poco::Net::HTTPServerParams> params{new Poco::Net::HTTPServerParams};
    std::shared_ptr<kel::ConnectionServer> server;
    std::mutex mutex;
    std::string served;  // guarded by mutex
    bool isReleased = false;
    std::promise<void> gate;
    const std::shared_future<void> released = gate.get_future().share();
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
                                             "{\"b\":" + listOf("{}", 100'000) + "}"};
    for (const auto& body : bodies) requests.push_back(request("POST /body", body));
    for (const auto& bytes : requests) EXPECT_EQ(kFailed, exchange(bytes)) << bytes.substr(0, 80);
    EXPECT_EQ(kFailed, RawClient(port).send(post + "\r\n").read()) << "waits for a body";
    EXPECT_EQ("", exchange(chunked + "7000000\r\n" + std::string().append(0x7000000, ' ')));
    EXPECT_TRUE(log.await("body is longer than 8 MiB", 2));
    EXPECT_EQ(3 + requests.size() + 4, log.count("")) << "each is one line";

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

TEST_F(WebApi, ServesOnSeveralSockets) {
    api->stop();
    EXPECT_THROW(api->start(std::vector<ServerSocket>()), Poco::InvalidArgumentException);
    std::vector<ServerSocket> sockets;
    for (int i = 0; i < 2; ++i) sockets.emplace_back(Poco::Net::SocketAddress("127.0.0.1", 0));
    api->start(sockets);
    for (const ServerSocket& socket : sockets) {
        port = socket.address().port();
        EXPECT_EQ(standardReply(kNotFound), get("/unknown"));
    }
    EXPECT_EQ(2u, api->statistics().requests);
    EXPECT_THROW(api->start(sockets), Poco::LogicException);
    api->stop();
    for (const ServerSocket& socket : sockets)
        EXPECT_THROW(RawClient{socket.address().port()}, Poco::Exception);
}

TEST_F(WebApi, IsEndedByAStopOfTheLibraryAndStartsAnew) {
    for (int round = 0; round < 2; ++round) {
        RawClient kept(port);
        EXPECT_EQ(jsonReply(R"({"x":"1"})"), kept.send(request("GET /json?x=1")).read());
        kel::stopLibrary();
        EXPECT_EQ("", kept.read());
        EXPECT_THROW(RawClient{port}, Poco::Exception);
        start();
    }
}

TEST_F(WebApi, AnswersStatusesOfHandlersAndMethodsThatARouteDoesNotName) {
    using Api = kel::WebApiBasic;
    const auto raw = [](auto&, auto& response, auto&) { response.send() << "raw"; };
    const auto refuse = [](auto&, auto& response, auto&, auto& result) {
        response.setStatus(Poco::Net::HTTPResponse::HTTP_BAD_REQUEST);
        result.set("msg", "no");
    };
    const auto echo = [](auto&, auto&, auto&, auto& result, auto& body) { result = body; };
    api->apiRegist("/get", {"GET", "HEAD"}, raw);
    api->apiRegist("/refuse", {"GET"}, refuse);
    api->apiRegist("/echo", {"PUT"}, echo);
    EXPECT_THROW(api->apiRegist("/none", Api::Methods(), raw), Poco::InvalidArgumentException);
    EXPECT_EQ(kPlain + "raw", get("/get"));
    const auto refusal = exchange(request("GET /refuse"));
    EXPECT_TRUE(refusal.starts_with("HTTP/1.1 400 Bad Request\r\n")) << refusal;
    EXPECT_TRUE(refusal.ends_with("\r\n\r\nC\r\n{\"msg\":\"no\"}\r\n0\r\n\r\n")) << refusal;
    EXPECT_EQ(jsonReply(R"({"b":1})"), exchange(request("PUT /echo", R"({"b":1})")));
    const std::vector<std::pair<std::string, std::string>> others = {{"POST /get", "GET, HEAD"},
                                                                     {"get /get", "GET, HEAD"},
                                                                     {"PUT /refuse", "GET"},
                                                                     {"GET /echo", "PUT"}};
    for (const auto& [line, allowed] : others) {
        const std::string body = R"({"code": -1, "msg": "method not allowed"})";
        EXPECT_EQ("HTTP/1.1 405 Method Not Allowed\r\nDate\r\nConnection: Keep-Alive\r\nAllow: " +
                      allowed + "\r\nContent-Type: application/json\r\nContent-Length: " +
                      std::to_string(body.size()) + "\r\n\r\n" + body,
                  exchange(request(line)));
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

TEST_F(WebApi, DestroysWhatCallbacksCapturedAtOnceWithoutALock) {
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

TEST_F(BoundedServer, RefusesARequestThatTwoReadersCouldTakeForTwo) {
    start();
    const std::string get = "GET /a HTTP/1.1\r\n", post = "POST /a HTTP/1.1\r\n";
    const std::string chunked = post + "Transfer-Encoding: chunked\r\n\r\n";
    const std::string next = request("GET /next");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {post + "Transfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n", "501"},
        {post + "Transfer-Encoding: identity\r\n\r\n", "501"},
        {post + "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n\r\n", "400"},
        {post + "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n\r\n0\r\n\r\n", "400"},
        {"POST /a HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", "400"},
        {post + "Content-Length: 0\r\nContent-Length: 64\r\n\r\n", "400"},
        {post + "Content-Length: 0, 64\r\n\r\n", "400"},
        {post + "Content-Length: +0\r\n\r\n", "400"},
        {post + "Content-Length:\r\n\r\n", "400"},
        {post + "Content-Length : 64\r\n\r\n", "400"},
        {post + "X: a\r\n Content-Length: 64\r\n\r\n", "400"},
        {post + "X: a\rContent-Length: 64\r\n\r\n", "400"},
        {post + "X: a\nContent-Length: 64\r\n\r\n", "400"},
        {get + "Host: a\r\nHost: b\r\n\r\n", "400"},
        {get + "no colon\r\n\r\n", "400"},
        {"GET /a HTTP/1.1\n\n", "400"},
        {"\x16\x03\x01\xFF\r\n\r\n", "400"},
        {post + "Content-Length: many\r\n\r\n", "400"},
        {"GET  /a HTTP/1.1\r\n\r\n", "400"},
        {"GET /a\r\n\r\n", "400"},
        {"GET /a HTTP/2.0\r\n\r\n", "505"},
        {get + std::string(64 * 1024, 'n') + ": v\r\n\r\n", "431"},
        {chunked + "5x\r\nabcde\r\n0\r\n\r\n", "400"},
        {chunked + "-5\r\nabcde\r\n0\r\n\r\n", "400"},
        {chunked + "0x5\r\nabcde\r\n0\r\n\r\n", "400"},
        {chunked + "\r\nabcde\r\n0\r\n\r\n", "400"},
        {chunked + "100000005\r\nabcde\r\n0\r\n\r\n", "400"},
        {chunked + "5\nabcde\r\n0\r\n\r\n", "400"},
        {chunked + "5\r\nabcdefg0\r\n\r\n", "400"},
        {chunked + "5;" + std::string(300, 'e') + "\r\nabcde\r\n0\r\n\r\n", "400"},
        {chunked + "0\r\nX-Trailer: 1\r\n\r\n", "400"},
        // These three are well framed: what follows them is the next request.
        {chunked + "5;e=\"1\"\r\nabcde\r\n00\r\n\r\n", "200"},
        {post + "Content-Length: 5\r\n\r\nabcde", "200"},
        {get + "Transfer-Encodings: gzip\r\n\r\n\r\n", "200"},
    };
    for (const auto& [bytes, status] : cases) {
        SCOPED_TRACE(bytes.substr(0, 100));
        RawClient client = connect();
        client.send(bytes + next).shutdownSend();
        const std::string replies = readAll(client);
        EXPECT_TRUE(replies.starts_with("HTTP/1.1 " + status)) << replies;
        const bool followed = replies.find("HTTP/1.1 ", 1) != std::string::npos;
        EXPECT_EQ(status == "200", followed) << replies;
        EXPECT_EQ(status == "200", takeServed().ends_with("/next "));
    }
    const auto numbers = server->statistics();
    EXPECT_EQ(6u, numbers.status2xx);
    EXPECT_EQ(28u, numbers.status4xx);
    EXPECT_EQ(3u, numbers.status5xx);
    EXPECT_EQ(37u, numbers.requests);
}

TEST_F(BoundedServer, ClosesTheConnectionOfAClientThatIsTooSlow) {
    kel::ServerTimes times;
    times.head = times.grace = std::chrono::milliseconds(300);
    start(times);
    const std::string late = "HTTP/1.1 408 Request Time-out\r\nConnection: Close\r\n\r\n";
    EXPECT_EQ(late, drip(connect(), "GET /a HTTP/1.1\r\nX: ", "x")) << "a head without end";
    const std::string post = "POST /a HTTP/1.1\r\n";
    EXPECT_EQ(late, drip(connect(), post + "Content-Length: 9999\r\n\r\n", "x"));
    EXPECT_EQ(late, drip(connect(), post + "Transfer-Encoding: chunked\r\n\r\n", "1\r\nx\r\n"));
    RawClient neverReads = connect();
    neverReads.send(request("GET /endless"));
    EXPECT_TRUE(await([&] { return takeServed().ends_with("/endless "); }));
    EXPECT_TRUE(await([&] { return server->statistics().connections == 0; }));
}

TEST_F(BoundedServer, RefusesConnectionsInExcessAndClosesIdleOnesForThoseThatWait) {
    kel::ServerTimes times;
    times.crowdedIdle = times.crowdedHead = std::chrono::milliseconds(300);
    start(times);
    RawClient kept = connect(), holding = connect();
    EXPECT_NE("", kept.send(request("GET /a")).read());
    holding.send(request("GET /hold"));
    EXPECT_TRUE(await([&] { return server->statistics().requests == 2; }));
    {
        RawClient waiting = connect();  // for the thread of the idle connection
        EXPECT_EQ("", kept.read());
        EXPECT_TRUE(await([&] { return server->statistics().queued == 0; }));
        RawClient queued = connect();
        EXPECT_TRUE(await([&] { return server->statistics().queued == 1; }));
        EXPECT_EQ(kUnavailable, connect().read());
        EXPECT_EQ(1u, server->statistics().refused);
    }
    release();
    EXPECT_NE("", holding.read());
}

TEST_F(BoundedServer, HandsAConnectionOverToAWebSocketThatOutlivesTheRequest) {
    std::promise<std::unique_ptr<Poco::Net::WebSocket>> taken;
    std::vector<Poco::Net::SocketAddress> peers;
    const auto http = kel::HttpServer::createInstance(socket, params, [&](auto& in, auto& out) {
        auto& served = dynamic_cast<Poco::Net::HTTPServerRequestImpl&>(in);
        EXPECT_TRUE(served.socket().getNoDelay()) << "a reply in parts waits between them";
        peers = {in.clientAddress(), in.serverAddress()};
        taken.set_value(std::make_unique<Poco::Net::WebSocket>(in, out));
    });
    http->start();
    RawClient client = connect();
    const std::string frame("\x81\x82\0\0\0\0hi", 8);
    client.send(
        "GET /ws HTTP/1.1\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
        "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n\r\n" +
        frame);  // the first frame comes with the request
    const auto webSocket = taken.get_future().get();
    EXPECT_EQ((std::vector{client.address(), socket.address()}), peers);
    EXPECT_TRUE(http->stop(kLong)) << "still counts the connection as its own";
    std::string reply;
    for (int round = 0; round < 2; ++round) {
        char received[8];
        int flags = 0;
        ASSERT_EQ(2, webSocket->receiveFrame(received, sizeof received, flags));
        EXPECT_EQ("hi", std::string(received, 2));
        webSocket->sendFrame(received, 2);
        client.send(frame);
    }
    while (!reply.ends_with("\x81\2hi\x81\2hi")) {
        char block[512];
        reply.append(block, static_cast<std::size_t>(client.receiveBytes(block, sizeof block)));
    }
    EXPECT_TRUE(reply.starts_with("HTTP/1.1 101 Switching Protocols\r\n")) << reply;
}

TEST_F(BoundedServer, StopsWithPatienceAndStartsAgainOnTheSameSocket) {
    const auto http = kel::HttpServer::createInstance(
        socket, params, [this](auto& in, auto& out) { answer(in, out); });
    std::vector<RawClient> holding;
    constexpr auto kForever = std::chrono::milliseconds::max();
    for (const auto patience : {0ms, 1ms, kForever}) {
        http->start();
        EXPECT_THROW(http->start(), Poco::IllegalStateException);
        RawClient kept = connect();
        EXPECT_NE("", kept.send(request("GET /a")).read());
        holding.emplace_back(connect()).send(request("GET /hold"));
        EXPECT_TRUE(await([&] { return http->statistics().requests == 2; }));
        if (patience == kForever) release();
        EXPECT_EQ(patience == kForever, http->stop(patience));
        EXPECT_EQ("", kept.read()) << "an idle connection stays open";
        EXPECT_THROW(connect(), Poco::Exception) << "the port takes what nobody serves";
        EXPECT_FALSE(http->running());
    }
    for (RawClient& client : holding) EXPECT_NE("", client.read()) << "cut off by the stop";
}
