// Every public header, in a project that says nothing about language level or paths; at least one
// call into each, so that what is not exported does not link.
#include <common/Config.h>
#include <common/HttpClient.h>
#include <common/HttpServer.h>
#include <common/Logger.h>
#include <common/MqttClient++.h>
#include <common/NotificationCenter.h>
#include <common/Shutdown.h>
#include <common/ThreadPool.h>
#include <common/Utils.h>
#include <common/WebApiBasic.h>
#include <common/WebHookBasic.h>

#include <iostream>

static int fail(const char* what) {
    std::cerr << what << std::endl;
    return 1;
}

int main() {
    kel::loadLogging();
    kel::initHttpOption();
    kel::loadConfig();
    if (kel::configInstance().getInt(kel::http::kPort) != 9528) return fail("configuration");
    if (kel::logName() != "uses_kelcommon_logger") return fail("logger");

    kel::WebApiBasic::instance()->apiRegist("/alive");
    kel::WebHookBasic::defaultWebHook()->reportServerStarted();
    if (!kel::HttpClient::defaultHttpClient()) return fail("HTTP client");
    Poco::Net::ServerSocket socket;
    socket.bind(Poco::Net::SocketAddress("127.0.0.1", 0), false, false);
    socket.listen();
    kel::HttpServer::createInstance(socket, new Poco::Net::HTTPServerParams, {})->stop();

    bool posted = false;
    kel::NotificationCenter& center = kel::NotificationCenter::defaultCenter();
    center.addObserver(kel::Observer::createInstance("here", [&](auto*) { posted = true; }));
    center.postNotification(new Poco::Notification);
    center.removeObserver("here");
    if (!posted) return fail("notification");

    {
        kel::TaskManager tasks;
        if (kel::MqttClient::createInstance("tcp://127.0.0.1:1", "me", "", "")->getstation() !=
            "me")
            return fail("MQTT client");
    }
    if (kel::ThreadPool::defaultPool().capacity() != 32) return fail("thread pool");
    if (makeJsonDefault(0, "ok") != R"({"code":0,"msg":"ok"})") return fail("JSON");
    kel::stopLibrary();
    kel::deleteLogger();
    return 0;
}
