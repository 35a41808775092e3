#include "Config.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/FileStream.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Path.h>

#include <sstream>

#include "internal/log/UnitLog.h"
#include "internal/platform/Paths.h"
#include "internal/platform/Platform.h"
#include "internal/tls/ShippedDefaults.h"

namespace kel {

namespace http {
const std::string kPort = "http.port";
const std::string kSslPort = "http.sslport";
const std::string kApiDebug = "http.apiDebug";
}  // namespace http

namespace rpc {
const std::string kRpcPort = "rpc.port";
}  // namespace rpc

namespace {

constexpr UnitLog log("src/common/Config");

// Path of the configuration file; empty until loadConfig(). Never destroyed, as the store.
std::string& configPath() {
    static auto* path = new std::string;
    return *path;
}

std::string findConfigPath() {
    const Poco::Path directory = paths::applicationDirectory(Poco::Path::configHome());
    Poco::File(directory.parent()).createDirectories();
    platform::createPrivateDirectory(directory.toString());
    return directory.toString() + paths::executable().getBaseName() + ".json";
}

// POCO keeps the old store without a word where the root is no object.
void loadFile(const std::string& path) {
    Poco::FileInputStream in(path);
    std::stringstream text;
    text << in.rdbuf();
    Poco::JSON::Parser().parse(text.str()).extract<Poco::JSON::Object::Ptr>();
    configInstance().load(text);
}

}  // namespace

Poco::Util::JSONConfiguration& configInstance() {
    static auto* store = new Poco::Util::JSONConfiguration;
    return *store;
}

void loadConfig() {
    try {
        configPath() = findConfigPath();
        log.information("config full path: " + configPath());
        const Poco::File file(configPath());
        if (file.exists() && file.getSize() != 0) {
            loadFile(configPath());
        } else {
            saveConfig();
        }
        log.information("config initialized");
    } catch (const std::exception& exc) {
        log.error(std::string(exc.what()));
    }
}

void saveConfig() {
    if (configPath().empty()) return;
    try {
        std::ostringstream text;
        configInstance().save(text, 2);
        platform::replaceFileContent(configPath(), text.str());
    } catch (const std::exception& exc) {
        log.error(std::string("save config file error: ") + exc.what());
    }
}

void initHttpOption() {
    // Kept as text, as setUInt16 of newer POCO releases does.
    configInstance().setUInt(http::kPort, 9528);
    configInstance().setUInt(http::kSslPort, 443);
    configInstance().setBool(http::kApiDebug, true);
}

void initRpcOption() {
    configInstance().setUInt(rpc::kRpcPort, 9527);
}

void initSSLOption() {
    Poco::Util::JSONConfiguration& store = configInstance();
    const std::string server = "openSSL.server.";
    store.setString(server + "privateKeyFile", "${application.configDir}any.pem");
    store.setString(server + "caConfig", "${application.configDir}rootcert.pem");
    store.setString(server + "verificationMode", tls::kShippedVerification);
    store.setInt(server + "verificationDepth", 9);
    store.setBool(server + "loadDefaultCAFile", true);
    store.setString(server + "cipherList", tls::kShippedCipherList);
    store.setString(server + "privateKeyPassphraseHandler.name", "KeyFileHandler");
    store.setString(server + "privateKeyPassphraseHandler.options.password",
                    tls::kShippedPassphrase);
    store.setString(server + "invalidCertificateHandler.name", tls::kShippedCertificateHandler);
    store.setBool(server + "extendedVerification", false);
    store.setBool(server + "cacheSessions", true);
    store.setString(server + "sessionIdContext", "${application.name}");
    store.setInt(server + "sessionCacheSize", 100);
    store.setBool(server + "requireTLSv1", false);
}

}  // namespace kel
