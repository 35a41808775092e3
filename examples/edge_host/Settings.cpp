#include "Settings.h"

#include <Poco/Exception.h>
#include <Poco/NumberParser.h>
#include <common/Config.h>

namespace edge {

using Poco::Util::JSONConfiguration;
using status_page::kSecret;
using status_page::kShown;
using status_page::Visibility;

namespace {

template <typename Self, typename Visitor>
void visit(Self& settings, Visitor&& visitor) {
    visitor("host.role", settings.role, kShown);
    visitor("mqtt.address", settings.address, kShown);
    visitor("mqtt.clientId", settings.clientId, kShown);
    visitor("mqtt.username", settings.username, kShown);
    visitor("mqtt.password", settings.password, kSecret);
    visitor("mqtt.authorities", settings.mqtt.authorities, kShown);
    visitor("mqtt.certificate", settings.mqtt.certificate, kShown);
    visitor("mqtt.privateKey", settings.mqtt.privateKey, kShown);
    visitor("mqtt.privateKeyPassphrase", settings.mqtt.privateKeyPassphrase, kSecret);
    visitor("mqtt.checkServerName", settings.mqtt.checkServerName, kShown);
    visitor("topics.telemetry", settings.telemetryTopic, kShown);
    visitor("topics.alarms", settings.alarmTopic, kShown);
    visitor("topics.bus", settings.busTopic, kShown);
    visitor("alarms.limit", settings.alarmLimit, kShown);
    visitor("bus.askEveryMs", settings.askEvery, kShown);
    status_page::PageSettings::visit(settings.page, visitor);
}

// Writes settings into the store.
struct Writer {
    JSONConfiguration& store;

    void operator()(const char* key, const std::string& value, Visibility) {
        store.setString(key, value);
    }
    void operator()(const char* key, double value, Visibility) { store.setDouble(key, value); }
    void operator()(const char* key, int value, Visibility) { store.setInt(key, value); }
    void operator()(const char* key, bool value, Visibility) { store.setBool(key, value); }
    void operator()(const char* key, std::uint16_t value, Visibility) { store.setUInt(key, value); }
};

// Reads settings from the store; one that it lacks keeps its value.
struct Reader {
    JSONConfiguration& store;
    std::vector<std::string> shown = {};

    template <typename Value>
    void operator()(const std::string& key, Value& value, Visibility visibility) {
        if (visibility == kShown) shown.push_back(key);
        if (!store.has(key)) return;
        try {
            read(key, value);
        } catch (const Poco::Exception& exc) {
            throw Poco::DataFormatException("setting " + key, exc.displayText());
        }
    }

private:
    // Raw: "${" in a password is no reference.
    void read(const std::string& key, std::string& value) { value = store.getRawString(key); }
    void read(const std::string& key, double& value) { value = store.getDouble(key); }
    void read(const std::string& key, bool& value) { value = store.getBool(key); }
    void read(const std::string& key, int& value) {
        value = store.getInt(key);
        if (value < 0) throw Poco::RangeException("not below 0", std::to_string(value));
    }
    void read(const std::string& key, std::uint16_t& value) {
        const unsigned port = store.getUInt(key);
        if (port > 0xFFFF) throw Poco::RangeException("no port", std::to_string(port));
        value = static_cast<std::uint16_t>(port);
    }
};

void expectOneOf(const std::string& key, const std::string& value, const std::string& one,
                 const std::string& other) {
    if (value == one || value == other) return;
    throw Poco::DataFormatException("setting " + key + " is neither " + one + " nor " + other,
                                    value);
}

void readStore(Settings& settings) {
    Reader reader{kel::configInstance()};
    visit(settings, reader);
    expectOneOf("host.role", settings.role, "server", "microservice");
    expectOneOf("http.scheme", settings.page.scheme, "http", "https");
    settings.page.shownSettings = reader.shown;
}

// What a value looks like; "" for any text.
std::string kindOf(const std::string& text) {
    double number = 0;
    if (text == "true" || text == "false") return "true or false";
    return Poco::NumberParser::tryParseFloat(text, number) ? "a number" : "";
}

void replaceDefault(const std::string& key, const std::string& value) {
    JSONConfiguration& store = kel::configInstance();
    if (!store.has(key)) throw Poco::DataFormatException("no such setting", key);
    const std::string kind = kindOf(store.getRawString(key));
    if (!kind.empty() && kindOf(value) != kind) {
        throw Poco::DataFormatException("setting " + key + " takes " + kind, value);
    }
    store.setString(key, value);
}

}  // namespace

Settings loadSettings(const std::string& role, const std::map<std::string, std::string>& defaults) {
    Settings settings;
    if (!role.empty()) settings.role = role;
    settings.clientId = "edge-" + settings.role;
    if (settings.role != "server") {  // both roles on one machine
        ++settings.page.port;
        ++settings.page.tlsPort;
    }
    kel::initHttpOption();
    kel::initRpcOption();
    kel::initSSLOption();
    kel::configInstance().setString("openSSL.client.caConfig", "");  // for https hook URLs
    visit(settings, Writer{kel::configInstance()});
    for (const auto& [key, value] : defaults) replaceDefault(key, value);
    readStore(settings);  // what is wrong with a default ends the start and gets into no file

    // The library would carry on with the defaults; a host that did so would run as another one
    // than it was set up to be.
    kel::loadConfig();
    const std::string error = kel::lastConfigError();
    if (!error.empty()) throw Poco::FileException("configuration", error);
    readStore(settings);
    if (!role.empty()) settings.role = role;
    return settings;
}

}  // namespace edge
