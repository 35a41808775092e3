#pragma once

#include <common/MqttOptions.h>
#include <status_page/PageSettings.h>

#include <map>
#include <string>

namespace edge {

/// The host's own settings, kept in the same file as the library's.
struct Settings {
    std::string role = "server";  // "server" or "microservice"

    std::string address = "tcp://127.0.0.1:1883";
    std::string clientId = "edge-server";
    std::string username;
    std::string password;
    kel::MqttOptions mqtt;  // in the file: the names of TLS files, and whether names are checked

    // A filter is found anywhere in a topic up to its first "/#": choose stems that occur nowhere
    // else. Bus topics begin with "/kelbus" and are logged message by message.
    std::string telemetryTopic = "/plant1/sensors/#";
    std::string alarmTopic = "/plant1/alarms";
    std::string busTopic = "/kelbus/plant1";

    double alarmLimit = 90;
    int askEvery = 1000;  // milliseconds; 0: never

    status_page::PageSettings page;
};

/// Loads the configuration file into the library's store, which is empty before, and returns what
/// it says. Without a file the defaults become the file.
/// @param role      counts instead of the file's; empty: the file's.
/// @param defaults  values by dotted keys, instead of the usual defaults.
/// @throws Poco::DataFormatException  names the key whose value cannot be used.
/// @throws Poco::FileException  the file cannot be used; the text says where and why.
Settings loadSettings(const std::string& role, const std::map<std::string, std::string>& defaults);

}  // namespace edge
