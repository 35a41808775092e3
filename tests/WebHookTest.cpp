// What a hook reads from the configuration it reads once per process: each test has its own.

#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <common/Config.h>
#include <common/ThreadPool.h>
#include <common/WebHookBasic.h>
#include <common/internal/http/Keepalive.h>
#include <gtest/gtest.h>

#include "Await.h"
#include "RawHttp.h"

TEST(WebHook, IsDisabledByDefaultAndNotEnabledAfterItsFirstReports) {
    std::ostringstream store;
    kel::configInstance().save(store, 0);
    EXPECT_EQ(R"({"hook":{"admin_params":"secret=7d41a0c2-5e93-4f1b-8c26-b0e94d3a7f15",)"
              R"("alive_interval":30,"enable":false,)"
              R"("on_server_keepalive":"http://127.0.0.1:9528/index/api/on_server_keepalive",)"
              R"("on_server_started":"http://127.0.0.1:9528/index/api/on_server_started",)"
              R"("retry":1,"retry_delay":3,"timeoutSec":10}})",
              store.str());
    ScriptedServer server("");
    kel::configInstance().setString("hook.on_server_started", server.url("/report"));
    const auto hook = kel::WebHookBasic::defaultWebHook();
    for (const bool enable : {false, true}) {
        kel::configInstance().setBool("hook.enable", enable);
        hook->reportServerStarted();
        hook->reportServerKeepalive();
    }
    for (std::size_t i = 1; i <= 20; ++i) {  // a timer, were there one, would tick meanwhile
        hook->doHttpRequest(server.url("/only"), nullptr);
        EXPECT_EQ(i, server.awaitRequests(i).size());
    }
}

TEST(WebHook, ReportsToTheStartedUrlAtOnceAndPeriodically) {
    ScriptedServer server("this is no reply");
    kel::configInstance().setBool("hook.enable", true);
    kel::configInstance().setString("hook.on_server_started", server.url("/started?secret=1"));
    const auto hook = kel::WebHookBasic::createInstance();
    hook->reportServerStarted();
    for (const std::size_t reports : {1, 2}) {  // anew: at once again, and only one timer goes on
        server.awaitRequests(reports);
        hook->reportServerKeepalive();
    }
    EXPECT_EQ(std::vector<std::string>(4,
                                       "GET /started?secret=1 HTTP/1.1\r\nConnection: Close\r\n"
                                       "Host: " +
                                           server.url("").substr(7) + "\r\n\r\n"),
              server.awaitRequests(4));  // 10 s later
}

TEST(WebHook, HandsOnAReplysObjectOrAnEmptyOneAlsoWhenReleasedMeanwhile) {
    const std::string ok = "HTTP/1.1 200 OK\r\n\r\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {ok + R"({"b":[1],"a":null})", R"(200 {"a":null,"b":[1]})"},
        {"HTTP/1.1 503 Busy\r\n\r\n{\"a\":1}", R"(503 {"a":1}503 {})"},  // its callback throws
        {ok + "[]", "200 {}"},
        {ok + std::string(9 << 20, ' ') + "{\"a\":1}", "200 {}"},
        {ok + "{\"a\":" + listOf("0", 100'000) + "}", "200 {}"},
        {"garbage", "400 {}"},
    };
    for (const auto& [wire, expected] : cases) {
        ScriptedServer server(wire);
        std::ostringstream calls;
        const auto note = [&](auto status, auto& object) {
            calls << status << " ";
            object.stringify(calls);
            if (status == 503) throw std::runtime_error("callback failed");
        };
        kel::WebHookBasic::createInstance()->doHttpRequest(server.url(), note);
        ASSERT_TRUE(await([] { return kel::ThreadPool::defaultPool().pendingTasks() == 0; }));
        EXPECT_EQ(expected, calls.str()) << wire.substr(0, 40);
    }
}

TEST(WebHook, LetsTheProcessEndWhileRequestsAreUnderWayOfHooksClientsAndServers) {
    // Answers byte by byte, without end: no time-out of the client's ever passes.
    ScriptedServer slow([](RawClient& peer) {
        peer.send("HTTP/1.1 200 ");
        for (int i = 0; i < 600; ++i) peer.send("x").poll(100000, RawClient::SELECT_READ);
    });
    // Takes a request block by block, so that sending it never times out either.
    Poco::Net::ServerSocket listener(Poco::Net::SocketAddress("127.0.0.1", 0));
    std::atomic<bool> ended{false};
    const auto drained = std::async(std::launch::async, [&] {
        Poco::Net::StreamSocket peer = listener.acceptConnection();
        std::vector<char> block(1 << 16);
        while (!ended && peer.receiveBytes(block.data(), 1 << 16) > 0) Poco::Thread::sleep(200);
    });
    Poco::Pipe out;
    const std::string drain = "http://" + listener.address().toString();
    const auto host =
        Poco::Process::launch(KEL_EXITING_HOST, {slow.url(), drain}, nullptr, &out, &out);
    Poco::PipeInputStream lines(out);
    std::string line;
    while (std::getline(lines, line) && !line.starts_with("port ")) continue;
    const auto port = static_cast<Poco::UInt16>(std::stoi(line.substr(5)));
    slow.awaitRequests(2);  // both the hook's and the client's wait for their replies

    RawClient idle(port);
    EXPECT_NE("", idle.send(request("GET /unknown")).read());
    const std::string reply = RawClient(port).send(request("GET /exit")).read();
    EXPECT_NE(std::string::npos, reply.find(R"({"reply":"whole"})")) << reply;
    EXPECT_EQ("", idle.read());
    int cutOff = 0;
    while (std::getline(lines, line)) cutOff += line.find("requst url '") != std::string::npos;
    EXPECT_EQ(3, cutOff);
    EXPECT_EQ(0, host.wait());
    ended = true;
}

TEST(WebHook, LeavesAReportOutWhileTwoEarlierOnesRun) {
    std::mutex mutex;
    std::vector<kel::Keepalive::Ticket> underWay;  // guarded by mutex
    std::atomic<int> reports{0};
    const auto report = [&](const auto& ticket) {
        const std::lock_guard<std::mutex> lock(mutex);
        underWay.push_back(ticket);
        EXPECT_LE(underWay.size(), 2u);
        ++reports;
    };
    std::atomic<int> ticks{0};
    const auto endOne = [&] {
        const std::lock_guard<std::mutex> lock(mutex);
        underWay.pop_back();
    };
    kel::Keepalive keepalive(1, report);
    kel::Keepalive other(1, [&](const auto&) { ++ticks; });  // none of its reports is under way
    for (int expected = 2; expected < 5; ++expected) {
        EXPECT_TRUE(await([&] { return reports == expected; }));
        EXPECT_TRUE(await([&, enough = ticks + 20] { return ticks >= enough; }));
        EXPECT_EQ(expected, reports);
        endOne();
    }
}
