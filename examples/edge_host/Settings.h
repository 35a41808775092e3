#pragma once

#include <cstdint>
#include <string>

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

    // The web API has no passwords: at another address than the loopback one, whoever reaches the
    // port can publish. Port 0 takes any that is free.
    std::string webAddress = "127.0.0.1";
    std::uint16_t webPort = 9528;

    std::string scanFolder;  // log files below it are counted at start; "" for none

    /// Writes these values into the configuration store, under their keys.
    void store() const;

    /// The store's values; a key that the store lacks keeps the value it has here.
    /// @throws Poco::DataFormatException  names the key whose value has the wrong type.
    void load();

private:
    template <typename Self, typename Visitor>
    static void visit(Self& self, Visitor&& visitor);
};
