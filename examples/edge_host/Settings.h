#pragma once

#include <status_page/PageSettings.h>

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

    // With an address "ssl://" or "mqtts://": PEM files; an empty one is not used.
    std::string authorities;  // who may vouch for the broker; empty: the system's
    std::string certificate;  // this host's own
    std::string privateKey;   // empty: in the certificate's file
    std::string privateKeyPassphrase;
    bool checkServerName = true;

    std::string hookAuthorities;  // for https URLs of the web hook; empty: the system's

    // A filter is found anywhere in a topic up to its first "/#": choose stems that occur nowhere
    // else. Bus topics begin with "/kelbus" and are logged message by message.
    std::string telemetryTopic = "/plant1/sensors/#";
    std::string alarmTopic = "/plant1/alarms";
    std::string busTopic = "/kelbus/plant1";

    double alarmLimit = 90;
    int askEvery = 1000;  // milliseconds; 0: never

    status_page::PageSettings page;  // its key and secret are made at the first start

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
