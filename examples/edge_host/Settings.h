#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace edge {

/// The host's own settings, kept in the same file as the library's.
struct Settings {
    std::string role = "server";  // "server" or "microservice"

    std::string address = "tcp://127.0.0.1:1883";
    std::string clientId = "edge-server";
    std::string username;
    std::string password;

    // A filter is found anywhere in a topic up to its first "/#": choose stems that occur nowhere
    // else. Bus topics begin with "/kelbus" and are logged message by message.
    std::string telemetryTopic = "/plant1/sensors/#";
    std::string alarmTopic = "/plant1/alarms";
    std::string busTopic = "/kelbus/plant1";

    double alarmLimit = 90;
    int askEvery = 1000;  // milliseconds; 0: never

    std::string webAddress = "127.0.0.1";
    std::uint16_t webPort = 9528;    // 0 takes any that is free
    bool webOpenToNetwork = false;   // another address than a loopback one may be served plain
    std::string webHostNames;        // by which browsers may ask, separated by commas
    std::string webScheme = "http";  // "https" behind a proxy that speaks TLS
    std::string webKey;              // made at the first start, as is the next one
    std::string webHookSecret;       // for other processes' hooks: ...?secret=<it>

    std::string scanFolder;  // log files below it are counted at start; "" for none

    /// Writes these values into the configuration store, under their keys.
    void store() const;

    /// The store's values; a key that the store lacks keeps the value it has here.
    /// @throws Poco::DataFormatException  names the key whose value cannot be used.
    void load();

    /// All settings, the library's included, that may be shown: no passwords, keys, secrets.
    static std::vector<std::string> shownKeys();

private:
    template <typename Self, typename Visitor>
    static void visit(Self& self, Visitor&& visitor);
};

/// Puts `value` in the place of a default in the store.
/// @throws Poco::DataFormatException  there is no such setting, or it takes another type.
void replaceDefault(const std::string& key, const std::string& value);

}  // namespace edge
