#include "Settings.h"

#include <Poco/Exception.h>
#include <common/Config.h>

namespace {

using Store = Poco::Util::JSONConfiguration;

void put(Store& store, const std::string& key, const std::string& value) {
    store.setString(key, value);
}
void put(Store& store, const std::string& key, double value) {
    store.setDouble(key, value);
}
void put(Store& store, const std::string& key, int value) {
    store.setInt(key, value);
}
void put(Store& store, const std::string& key, std::uint16_t value) {
    store.setUInt(key, value);
}

// Raw: "${" in a password is no reference.
std::string get(Store& store, const std::string& key, const std::string&) {
    return store.getRawString(key);
}
double get(Store& store, const std::string& key, double) {
    return store.getDouble(key);
}
int get(Store& store, const std::string& key, int) {
    return store.getInt(key);
}
std::uint16_t get(Store& store, const std::string& key, std::uint16_t) {
    const unsigned port = store.getUInt(key);
    if (port > 0xFFFF) throw Poco::RangeException("no port", std::to_string(port));
    return static_cast<std::uint16_t>(port);
}

}  // namespace

template <typename Self, typename Visitor>
void Settings::visit(Self& self, Visitor&& visitor) {
    visitor("host.role", self.role);
    visitor("mqtt.address", self.address);
    visitor("mqtt.clientId", self.clientId);
    visitor("mqtt.username", self.username);
    visitor("mqtt.password", self.password);
    visitor("topics.telemetry", self.telemetryTopic);
    visitor("topics.alarms", self.alarmTopic);
    visitor("topics.bus", self.busTopic);
    visitor("alarms.limit", self.alarmLimit);
    visitor("bus.askEveryMs", self.askEvery);
    visitor("http.address", self.webAddress);
    visitor(kel::http::kPort.c_str(), self.webPort);
    visitor("scan.folder", self.scanFolder);
}

void Settings::store() const {
    visit(*this,
          [](const char* key, const auto& value) { put(kel::configInstance(), key, value); });
}

void Settings::load() {
    visit(*this, [](const char* key, auto& value) {
        Store& store = kel::configInstance();
        if (!store.has(key)) return;
        try {
            value = get(store, key, value);
        } catch (const Poco::Exception& exc) {
            throw Poco::DataFormatException("setting " + std::string(key), exc);
        }
    });
}
