// What a hook reads from the configuration it reads once per process: each test has its own.

#include <Poco/Pipe.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <common/Config.h>
#include <common/WebHookBasic.h>
#include <gtest/gtest.h>

#include "CapturedLog.h"
#include "RawHttp.h"

using kel::WebHookBasic;

namespace {

void configure(bool enable, const std::string& url) {
    kel::configInstance().setBool("hook.enable", enable);
    kel::configInstance().setString("hook.on_server_started", url);
}

}  // namespace

TEST(WebHook, IsDisabledByDefaultAndNotEnabledAfterItsFirstReports) {
    std::ostringstream store;
    kel::configInstance().save(store, 0);
    EXPECT_EQ(
        "{\"hook\":{\"admin_params\":\"secret=7d41a0c2-5e93-4f1b-8c26-b0e94d3a7f15\","
        "\"alive_interval\":30,\"enable\":false,"
        "\"on_server_keepalive\":\"http://127.0.0.1:9528/index/api/on_server_keepalive\","
        "\"on_server_started\":\"http://127.0.0.1:9528/index/api/on_server_started\","
        "\"retry\":1,\"retry_delay\":3,\"timeoutSec\":10}}",
        store.str());
    ScriptedServer server("");
    const auto hook = WebHookBasic::defaultWebHook();
    for (const bool enable : {false, true}) {
        configure(enable, server.url("/report"));
        hook->reportServerStarted();
        hook->reportServerKeepalive();
    }
    for (int i = 0; i < 20; ++i) {  // meanwhile a timer, were there one, would have ticked
        hook->doHttpRequest(server.url("/only"), [](auto, auto&) {});
        EXPECT_TRUE(await([] { return kel::ThreadPool::defaultPool().pendingTasks() == 0; }));
    }
    EXPECT_EQ(20u, server.awaitRequests(20).size());
}

TEST(WebHook, ReportsToTheStartedUrlAtOnceAndPeriodically) {
    ScriptedServer server("this is no reply");
    configure(true, server.url("/started?secret=1"));
    const auto hook = WebHookBasic::createInstance();
    hook->reportServerStarted();
    server.awaitRequests(1);
    hook->reportServerKeepalive();
    server.awaitRequests(2);
    hook->reportServerKeepalive();  // anew: at once again, and only one timer goes on
    server.awaitRequests(3);
    configure(true, server.url("/changed"));
    const auto requests = server.awaitRequests(4);  // 10 s later
    ASSERT_EQ(4u, requests.size());
    EXPECT_EQ(std::vector<std::string>(4, requests[0]), requests);
    EXPECT_EQ(0u, requests[0].find("GET /started?secret=1 HTTP/1.1\r\n"));
}

TEST(WebHook, HandsObjectsOnAndTakesAllElseAsEmptyAlsoWhenReleasedMeanwhile) {
    const std::string ok = "HTTP/1.1 200 OK\r\n\r\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {ok + "{\"b\":[1],\"a\":null}", "200 {\"a\":null,\"b\":[1]}"},
        {"HTTP/1.1 503 Busy\r\n\r\n{\"a\":1}", "503 {\"a\":1}503 {}"},  // its callback throws
        {ok + "[]", "200 {}"},
        {ok + "{\"a\":", "200 {}"},
        {ok, "200 {}"},
        {ok + std::string(100000, '['), "200 {}"},
        {ok + "{\"a\":\"" + std::string(9 << 20, 'x') + "\"}", "200 {}"},
        {"garbage", "400 {}"},
    };
    for (const auto& [wire, expected] : cases) {
        ScriptedServer server(wire);
        std::ostringstream calls;
        auto hook = WebHookBasic::createInstance(), other = WebHookBasic::createInstance();
        other->reportServerKeepalive();
        hook->doHttpRequest(server.url(), [&](auto status, auto& object) {
            other.reset();
            calls << status << " ";
            object.stringify(calls);
            if (object.has("a") && status == 503) throw std::runtime_error("callback failed");
        });
        hook.reset();
        ASSERT_TRUE(await([] { return kel::ThreadPool::defaultPool().pendingTasks() == 0; }));
        EXPECT_EQ(expected, calls.str()) << wire.substr(0, 40);
    }
}

TEST(WebHook, AndAllElseLetTheProcessEndWithRequestsUnderWay) {
    // Answers byte by byte, without end: no time-out of the client's ever passes.
    ScriptedServer slow([](RawClient& peer) {
        peer.send("HTTP/1.1 200 ");
        for (int i = 0; i < 600; ++i) {
            peer.send("x").socket().poll(100000, Poco::Net::Socket::SELECT_READ);
        }
    });
    // Takes a request block by block, so that sending it never times out either.
    const Poco::Net::ServerSocket listener(Poco::Net::SocketAddress("127.0.0.1", 0));
    std::atomic<bool> ended{false};
    const auto drained = std::async(std::launch::async, [&ended, socket = listener]() mutable {
        Poco::Net::StreamSocket peer = socket.acceptConnection();
        std::vector<char> block(1 << 16);
        while (!ended && peer.receiveBytes(block.data(), 1 << 16) > 0) Poco::Thread::sleep(200);
    });
    Poco::Pipe out;
    const auto host = Poco::Process::launch(KEL_EXITING_HOST,
                                            {slow.url(), "http://" + listener.address().toString()},
                                            nullptr, &out, &out);
    Poco::PipeInputStream lines(out);
    std::string line;
    while (line.rfind("port ", 0) != 0 && std::getline(lines, line)) {
    }
    const int port = std::stoi(line.substr(5));
    slow.awaitRequests(2);  // both the hook's and the client's wait for their replies

    RawClient idle(port);
    const std::string reply = rawExchange(port, getRequest("/exit"));
    EXPECT_NE(std::string::npos, reply.find("{\"reply\":\"whole\"}")) << reply;
    EXPECT_EQ("", idle.readReply());
    int cutOff = 0;
    while (std::getline(lines, line)) cutOff += line.find("requst url '") != std::string::npos;
    EXPECT_EQ(3, cutOff);
    EXPECT_EQ(0, host.wait());
    ended = true;
}
