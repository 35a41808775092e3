// Every public header, in a project that says nothing about language level or paths; at least one
// call into each, so that what is not exported does not link.
#include <common/Config.h>
#include <common/HttpClient.h>
#include <common/HttpServer.h>
#include <common/Library.h>
#include <common/Logger.h>
#include <common/MqttClient++.h>
#include <common/NotificationCenter.h>
#include <common/Statistics.h>
#include <common/Termination.h>
#include <common/ThreadPool.h>
#include <common/Tls.h>
#include <common/Utils.h>
#include <common/Version.h>
#include <common/WebApiBasic.h>
#include <common/WebHookBasic.h>

#include <cstdlib>
#include <iostream>

static void expect(bool holds, const char* what) {
    if (holds) return;
    std::cerr << what << std::endl;
    std::exit(1);
}

int main() {
    kel::loadLogging();
    kel::initHttpOption();
    kel::loadConfig();
    expect(kel::configInstance().getInt(kel::http::kPort) == 9528, "configuration");
    expect(kel::configPath().find("uses_kelcommon.json") != std::string::npos, "path");
    const int number = KEL_VERSION_MAJOR * 10000 + KEL_VERSION_MINOR * 100 + KEL_VERSION_PATCH;
    expect(number == KEL_VERSION, "version");
#ifdef PACKAGE_VERSION
    expect(kel::version() == std::string(PACKAGE_VERSION), "version of the package");
#endif
    const int plugin = kel::ListFileType::Plugin;
    expect(plugin == kel::Plugin, "list type");
    expect(kel::logName() == "uses_kelcommon_logger", "logger");
    kel::WebApiBasic::instance()->apiRegist("/alive");
    kel::WebHookBasic::defaultWebHook()->reportServerStarted();
    expect(kel::HttpClient::defaultHttpClient() != nullptr, "HTTP client");
    const Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    kel::HttpServer::createInstance(socket, new Poco::Net::HTTPServerParams, {})->stop();
    bool posted = false;
    auto& center = kel::NotificationCenter::defaultCenter();
    center.addObserver(kel::Observer::createInstance("here", [&](auto*) { posted = true; }));
    center.postNotification(new Poco::Notification);
    expect(posted, "notification");
    kel::TaskManager tasks;
    const auto client = kel::MqttClient::createInstance("tcp://127.0.0.1:1", "me", "", "");
    expect(client->getstation() == "me", "MQTT client");
    expect(kel::ThreadPool::defaultPool().capacity() == 32, "thread pool");
    expect(kel::statistics().mqtt.published[0] == 0, "statistics");
    kel::catchTerminationRequests();
    kel::configInstance().setString("openSSL.server.certificateFile", "here.pem");
    expect(kel::serverCertificateFile() == "here.pem", "certificate");
    expect(makeJsonDefault(0, "ok") == R"({"code":0,"msg":"ok"})", "JSON");
    kel::stopLibrary();
    kel::deleteLogger();
}
