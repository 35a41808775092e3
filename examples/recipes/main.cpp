// Recipes that the guide shows, in a host that runs: a route for one method, confirmations matched
// to what was published, keys that an older file lacks, an orderly end on SIGTERM.
#include <Poco/NumberParser.h>
#include <common/Config.h>
#include <common/HttpServer.h>
#include <common/Library.h>
#include <common/Logger.h>
#include <common/MqttClient++.h>
#include <common/Statistics.h>
#include <common/Termination.h>
#include <common/WebApiBasic.h>

#include <iostream>

using Poco::Net::HTTPResponse;

namespace recipes {

void twice(Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse& response,
           const kel::WebApiBasic::ApiParams& params, Poco::JSON::Object& result) {
    int n = 0;
    if (params.count("n") == 0 || !Poco::NumberParser::tryParse(params.at("n"), n)) {
        response.setStatus(HTTPResponse::HTTP_BAD_REQUEST);  // "400 Bad Request"
        result.set("code", -1);
        result.set("msg", "?n= wants a number");
        return;
    }
    result.set("code", 0);
    result.set("twice", 2 * static_cast<Poco::Int64>(n));
}

// Sends `text` until the broker has it, which may be twice; false once `attempts` are used up.
bool deliver(kel::MqttClient& bus, const std::string& text, const std::string& topic,
             int attempts) {
    for (int i = 0; i < attempts; ++i) {
        if (bus.PublishAndWait(text, topic, 1, 0, std::chrono::seconds(5))) return true;
    }
    return false;
}

}  // namespace recipes

int main() {
    kel::catchTerminationRequests();  // first of all: a request may come while the host starts
    kel::loadLogging();
    kel::initHttpOption();  // what this release knows, then what the file says ...
    kel::configInstance().setString("mqtt.address", "tcp://127.0.0.1:1883");
    kel::loadConfig();
    kel::addMissingDefaults();  // ... and what the file lacks is added to it

    const auto web = kel::WebApiBasic::instance();
    web->apiRegist("/twice", recipes::twice);
    web->apiRegist("/reset", {"POST"},
                   [](auto&, auto& response, const auto&) { response.send() << R"({"code": 0})"; });
    const Poco::Net::ServerSocket socket = kel::serverSocket({"127.0.0.1", 0});
    web->start(socket);

    const auto bus = kel::MqttClient::createInstance(
        kel::configInstance().getString("mqtt.address"), "recipes", "", "");
    bus->Connect(
        [bus = std::weak_ptr<kel::MqttClient>(bus)](int code) {
            const auto client = bus.lock();
            if (code == 0 && client) recipes::deliver(*client, "{}", "recipes/up", 3);
            return true;
        },
        [](std::string) { return true; });

    std::cout << "serving " << socket.address().toString() << std::endl;
    kel::waitForTerminationRequest();
    std::cout << "confirmed " << kel::statistics().mqtt.confirmed << std::endl;
    web->stop(std::chrono::seconds(5));  // waits for requests in progress
    bus->Disconnect();
    kel::stopLibrary();
    kel::deleteLogger();
}
