// What a hook reads from the configuration it reads once per process: each test has its own.

#include <Poco/Pipe.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <common/Config.h>
#include <common/WebHookBasic.h>
#include <gtest/gtest.h>

#include <future>

#include "CapturedLog.h"
#include "RawHttp.h"

using kel::configInstance;
using kel::WebHookBasic;

namespace {

const std::string kEmptyReply = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}";

void enableReportsTo(const std::string& url) {
    configInstance().setBool("hook.enable", true);
    configInstance().setString("hook.on_server_started", url);
}

// Status and object of a reply, as "200 {...}".
std::string text(int status, const Poco::JSON::Object& object) {
    std::ostringstream out;
    out << status << " ";
    object.stringify(out);
    return out.str();
}

}  // namespace

TEST(WebHook, HasItsDefaultsInTheStoreFromTheStart) {
    std::ostringstream store;
    configInstance().save(store, 0);
    EXPECT_EQ(
        "{\"hook\":{\"admin_params\":\"secret=7d41a0c2-5e93-4f1b-8c26-b0e94d3a7f15\","
        "\"alive_interval\":30,\"enable\":false,"
        "\"on_server_keepalive\":\"http://127.0.0.1:9528/index/api/on_server_keepalive\","
        "\"on_server_started\":\"http://127.0.0.1:9528/index/api/on_server_started\","
        "\"retry\":1,\"retry_delay\":3,\"timeoutSec\":10}}",
        store.str());
}

TEST(WebHook, DoesNothingUntilItIsEnabledAndThenNotRetroactively) {
    CapturedLog log;
    ScriptedServer server(kEmptyReply);
    configInstance().setString("hook.on_server_started", server.url("/started"));
    const auto hook = WebHookBasic::defaultWebHook();
    EXPECT_EQ(hook, WebHookBasic::defaultWebHook());
    EXPECT_NE(hook, WebHookBasic::createInstance());
    hook->reportServerStarted();
    hook->reportServerKeepalive();
    enableReportsTo(server.url("/late"));
    hook->reportServerStarted();
    hook->reportServerKeepalive();

    std::promise<void> answered;
    hook->doHttpRequest(server.url("/only"), [&](auto, auto&) { answered.set_value(); });
    answered.get_future().wait();
    EXPECT_EQ(1u, server.awaitRequests(1).size());
    EXPECT_EQ(0u, log.count(""));
}

TEST(WebHook, ReportsToTheStartedUrlAtOnceAndPeriodically) {
    CapturedLog log;
    ScriptedServer server("this is no reply");
    enableReportsTo(server.url("/started?secret=1"));
    configInstance().setString("hook.on_server_keepalive", server.url("/never"));
    const auto hook = WebHookBasic::createInstance();
    hook->reportServerStarted();
    server.awaitRequests(1);
    hook->reportServerKeepalive();
    server.awaitRequests(2);
    hook->reportServerKeepalive();  // anew: at once again, and only one timer goes on
    server.awaitRequests(3);
    enableReportsTo(server.url("/changed"));
    const auto requests = server.awaitRequests(4);  // 10 s later
    EXPECT_EQ(std::vector<std::string>(4, requests[0]), requests);
    EXPECT_EQ(0u, requests[0].find("GET /started?secret=1 HTTP/1.1\r\n"));
    EXPECT_TRUE(log.await("requst url", 4));
}

TEST(WebHook, SendsNothingWithoutAUrl) {
    CapturedLog log;
    ScriptedServer server(kEmptyReply);
    enableReportsTo("");
    const auto hook = WebHookBasic::createInstance();
    hook->reportServerStarted();
    hook->reportServerKeepalive();
    hook->doHttpRequest(server.url(), nullptr);
    kel::ThreadPool::defaultPool().stop();  // waits for all that was sent
    EXPECT_EQ(1u, server.awaitRequests(1).size());
    EXPECT_EQ(0u, log.count(""));
}

TEST(WebHook, HandsObjectsOnAndTakesAllElseAsEmpty) {
    const std::string endless = "HTTP/1.1 200 OK\r\n\r\n{\"a\":\"" + std::string(9 << 20, 'x');
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"HTTP/1.1 200 OK\r\n\r\n{\"b\":[1],\"a\":null}", "200 {\"a\":null,\"b\":[1]}"},
        {"HTTP/1.1 503 Busy\r\n\r\n{\"a\":1}", "503 {\"a\":1}"},
        {"HTTP/1.1 200 OK\r\n\r\n[]", "200 {}"},
        {"HTTP/1.1 200 OK\r\n\r\nnull", "200 {}"},
        {"HTTP/1.1 200 OK\r\n\r\n{\"a\":", "200 {}"},
        {"HTTP/1.1 404 Gone\r\n\r\n", "404 {}"},
        {"HTTP/1.1 200 OK\r\n\r\n" + std::string(100000, '['), "200 {}"},
        {endless, "200 {}"},
        {"garbage", "400 {}"},
    };
    const auto hook = WebHookBasic::createInstance();
    for (const auto& [wire, expected] : cases) {
        SCOPED_TRACE(wire.substr(0, 40));
        ScriptedServer server(wire);
        std::promise<std::string> reply;
        hook->doHttpRequest(server.url(), [&](auto status, auto& object) {
            reply.set_value(text(status, object));
        });
        EXPECT_EQ(expected, reply.get_future().get());
    }
}

TEST(WebHook, CallsAThrowingCallbackOnceMoreAndAnEmptyOneNever) {
    CapturedLog log;
    ScriptedServer server("HTTP/1.1 200 OK\r\n\r\n{\"a\":1}");
    ScriptedServer noJson("HTTP/1.1 200 OK\r\n\r\nno");
    auto hook = WebHookBasic::createInstance();
    std::vector<std::string> calls;
    std::promise<void> again;
    hook->doHttpRequest(server.url(), [&](auto status, auto& object) {
        calls.push_back(text(status, object));
        object.set("left", "behind");
        if (calls.size() == 1) throw std::runtime_error("callback failed");
        again.set_value();
    });
    again.get_future().wait();
    EXPECT_EQ((std::vector<std::string>{"200 {\"a\":1}", "200 {}"}), calls);
    EXPECT_EQ(0u, log.count(""));
    hook->doHttpRequest(noJson.url(), nullptr);
    EXPECT_TRUE(log.await("bad_function_call"));
}

TEST(WebHook, MayGoWhileItsRequestsRunAlsoFromTheirCallbacks) {
    std::promise<void> release;
    ScriptedServer server([&](Poco::Net::StreamSocket& connection) {
        release.get_future().wait();
        connection.sendBytes(kEmptyReply.data(), static_cast<int>(kEmptyReply.size()));
    });
    ScriptedServer reports(kEmptyReply);
    enableReportsTo(reports.url());
    auto first = WebHookBasic::createInstance();
    auto second = WebHookBasic::createInstance();
    first->reportServerKeepalive();
    second->reportServerKeepalive();
    std::promise<int> status;
    first->doHttpRequest(server.url(), [&](auto code, auto&) {
        second.reset();
        status.set_value(code);
    });
    server.awaitRequests(1);
    first.reset();
    release.set_value();
    EXPECT_EQ(200, status.get_future().get());
}

TEST(WebHook, AndAllElseLetTheProcessEndWithRequestsUnderWay) {
    // Answers byte by byte, without end: no time-out of the client's ever passes.
    ScriptedServer slow([](Poco::Net::StreamSocket& connection) {
        connection.sendBytes("HTTP/1.1 200 ", 13);
        for (int i = 0; i < 600; ++i) {
            connection.sendBytes("x", 1);
            connection.poll(Poco::Timespan(0, 100000), Poco::Net::Socket::SELECT_READ);
        }
    });
    Poco::Pipe out;
    Poco::ProcessHandle host =
        Poco::Process::launch(KEL_EXITING_HOST, {slow.url()}, nullptr, &out, &out);
    Poco::PipeInputStream lines(out);
    int port = 0;
    for (std::string line; port == 0 && std::getline(lines, line);) {
        if (line.rfind("port ", 0) == 0) port = std::stoi(line.substr(5));
    }
    ASSERT_NE(0, port);
    slow.awaitRequests(2);  // both the hook's and the client's wait for their replies

    std::vector<RawClient> idle;
    for (int i = 0; i < 4; ++i) idle.emplace_back(port);
    RawClient asking(port);
    asking.send(getRequest("/exit"));
    const std::string reply = asking.readReply();
    EXPECT_NE(std::string::npos, reply.find("{\"reply\":\"whole\"}")) << reply;
    for (auto& client : idle) EXPECT_EQ("", client.readAll());
    int cutOff = 0;
    for (std::string line; std::getline(lines, line);) {
        cutOff += line.find("requst url '") != std::string::npos;
    }
    EXPECT_EQ(2, cutOff);
    EXPECT_EQ(0, host.wait());
}
