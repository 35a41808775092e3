#include "Settings.h"

#include <Poco/Exception.h>
#include <Poco/NumberParser.h>
#include <common/Config.h>

namespace edge {

namespace {

using Poco::Util::JSONConfiguration;

void put(JSONConfiguration& store, const std::string& key, const std::string& value) {
    store.setString(key, value);
}
void put(JSONConfiguration& store, const std::string& key, double value) {
    store.setDouble(key, value);
}
void put(JSONConfiguration& store, const std::string& key, int value) {
    store.setInt(key, value);
}
void put(JSONConfiguration& store, const std::string& key, bool value) {
    store.setBool(key, value);
}
void put(JSONConfiguration& store, const std::string& key, std::uint16_t value) {
    store.setUInt(key, value);
}

// Raw: "${" in a password is no reference.
void get(JSONConfiguration& store, const std::string& key, std::string& value) {
    value = store.getRawString(key);
}
void get(JSONConfiguration& store, const std::string& key, double& value) {
    value = store.getDouble(key);
}
void get(JSONConfiguration& store, const std::string& key, int& value) {
    value = store.getInt(key);
    if (value < 0) throw Poco::RangeException("not below 0", std::to_string(value));
}
void get(JSONConfiguration& store, const std::string& key, bool& value) {
    value = store.getBool(key);
}
void get(JSONConfiguration& store, const std::string& key, std::uint16_t& value) {
    const unsigned port = store.getUInt(key);
    if (port > 0xFFFF) throw Poco::RangeException("no port", std::to_string(port));
    value = static_cast<std::uint16_t>(port);
}

void expectOneOf(const std::string& key, const std::string& value, const std::string& one,
                 const std::string& other) {
    if (value == one || value == other) return;
    throw Poco::DataFormatException("setting " + key + " is neither " + one + " nor " + other,
                                    value);
}

bool isFlag(const std::string& text) {
    return text == "true" || text == "false";
}

bool isNumber(const std::string& text) {
    double number = 0;
    return Poco::NumberParser::tryParseFloat(text, number);
}

}  // namespace

template <typename Self, typename Visitor>
void Settings::visit(Self& self, Visitor&& visitor) {
    visitor("host.role", self.role);
    visitor("mqtt.address", self.address);
    visitor("mqtt.clientId", self.clientId);
    visitor("mqtt.username", self.username);
    visitor("mqtt.password", self.password);
    visitor("mqtt.authorities", self.authorities);
    visitor("mqtt.certificate", self.certificate);
    visitor("mqtt.privateKey", self.privateKey);
    visitor("mqtt.privateKeyPassphrase", self.privateKeyPassphrase);
    visitor("mqtt.checkServerName", self.checkServerName);
    visitor("topics.telemetry", self.telemetryTopic);
    visitor("topics.alarms", self.alarmTopic);
    visitor("topics.bus", self.busTopic);
    visitor("alarms.limit", self.alarmLimit);
    visitor("bus.askEveryMs", self.askEvery);
    visitor("http.address", self.page.address);
    visitor(kel::http::kPort.c_str(), self.page.port);
    visitor(kel::http::kSslPort.c_str(), self.page.tlsPort);
    visitor("http.besideTls", self.page.besideTls);
    visitor("http.openToNetwork", self.page.openToNetwork);
    visitor("http.hostNames", self.page.hostNames);
    visitor("http.scheme", self.page.scheme);
    visitor("http.key", self.page.key);
    visitor("http.hookSecret", self.page.hookSecret);
    visitor("openSSL.client.caConfig", self.hookAuthorities);
}

std::vector<std::string> Settings::shownKeys() {
    return {"host.role",
            "mqtt.address",
            "mqtt.clientId",
            "mqtt.username",
            "mqtt.authorities",
            "mqtt.certificate",
            "mqtt.privateKey",
            "mqtt.checkServerName",
            "topics.telemetry",
            "topics.alarms",
            "topics.bus",
            "alarms.limit",
            "bus.askEveryMs",
            "http.address",
            "http.port",
            "http.sslport",
            "http.besideTls",
            "http.apiDebug",
            "http.openToNetwork",
            "http.hostNames",
            "http.scheme",
            "rpc.port",

            "hook.enable",
            "hook.timeoutSec",
            "hook.alive_interval",
            "hook.retry",
            "hook.retry_delay",
            "hook.on_server_started",
            "hook.on_server_keepalive",
            "openSSL.client.caConfig",
            "openSSL.server.privateKeyFile",
            "openSSL.server.certificateFile",
            "openSSL.server.caConfig",
            "openSSL.server.verificationMode",
            "openSSL.server.verificationDepth",
            "openSSL.server.loadDefaultCAFile",
            "openSSL.server.cipherList",
            "openSSL.server.extendedVerification",
            "openSSL.server.requireTLSv1"};
}

void Settings::store() const {
    visit(*this,
          [](const char* key, const auto& value) { put(kel::configInstance(), key, value); });
}

void Settings::load() {
    visit(*this, [](const char* key, auto& value) {
        if (!kel::configInstance().has(key)) return;
        try {
            get(kel::configInstance(), key, value);
        } catch (const Poco::Exception& exc) {
            throw Poco::DataFormatException("setting " + std::string(key), exc.displayText());
        }
    });
    expectOneOf("host.role", role, "server", "microservice");
    expectOneOf("http.scheme", page.scheme, "http", "https");
    page.shownSettings = shownKeys();
}

void replaceDefault(const std::string& key, const std::string& value) {
    JSONConfiguration& store = kel::configInstance();
    if (!store.has(key)) throw Poco::DataFormatException("no such setting", key);
    const std::string standard = store.getRawString(key);
    if (isFlag(standard) ? !isFlag(value) : isNumber(standard) && !isNumber(value)) {
        throw Poco::DataFormatException(
            "setting " + key + " takes " + (isFlag(standard) ? "true or false" : "a number"),
            value);
    }
    store.setString(key, value);
}

}  // namespace edge
