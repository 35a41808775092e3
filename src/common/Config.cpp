#include "Config.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/FileStream.h>
#include <Poco/JSON/Object.h>
#include <Poco/Path.h>
#include <Poco/String.h>

#include <mutex>
#include <sstream>
#include <vector>

#include "internal/config/Store.h"
#include "internal/json/ParseObject.h"
#include "internal/log/UnitLog.h"
#include "internal/platform/Paths.h"
#include "internal/platform/Platform.h"
#include "internal/process/NeverDestroyed.h"
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

// What is known of the file beside the store.
struct FileState {
    std::mutex mutex;
    // Guarded by mutex:
    std::string path;       // empty until loadConfig()
    std::string lastError;  // of the last load or save
    std::string defaults;   // the store as JSON text before the last load; empty if that failed
};

FileState& fileState() {
    static NeverDestroyed<FileState> state;
    return *state;
}

std::string get(std::string FileState::*member) {
    FileState& state = fileState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    return state.*member;
}

void set(std::string FileState::*member, const std::string& value) {
    FileState& state = fileState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.*member = value;
}

std::string findConfigPath() {
    const Poco::Path directory = paths::applicationDirectory(Poco::Path::configHome());
    platform::createPrivateDirectory(directory.toString());
    return directory.toString() + paths::executable().getBaseName() + ".json";
}

std::string storeAsText() {
    std::ostringstream text;
    text.exceptions(std::ios::badbit);  // else a failed allocation would cut the text
    configInstance().save(text, 2);
    return text.str();
}

// Editors of Windows put a byte order mark in front.
std::string readFile(const std::string& path) {
    if (!Poco::File(path).isFile()) throw Poco::OpenFileException("no regular file", path);
    Poco::FileInputStream in(path);
    in.exceptions(std::ios::badbit);  // else a failed read or allocation would cut the text
    std::ostringstream text;
    text.exceptions(std::ios::badbit);
    text << in.rdbuf();
    const std::string mark = "\xEF\xBB\xBF";
    return text.str().substr(text.str().starts_with(mark) ? mark.size() : 0);
}

// POCO keeps the old store without a word where the root is no object.
void replaceStore(const std::string& text) {
    parseJsonObject(text);
    std::istringstream in(text);
    configInstance().load(in);
}

// Adds the place of the fault to `where`.
void replaceStoreByFile(const std::string& path, std::string& where) {
    const std::string text = readFile(path);
    try {
        replaceStore(text);
    } catch (const Poco::BadCastException&) {
        throw Poco::BadCastException("the root is no JSON object");
    } catch (const Poco::Exception&) {
        const TextPlace place = placeOfJsonError(text);
        where += ":" + std::to_string(place.line) + ":" + std::to_string(place.column);
        throw;
    }
}

// `where` tells, on failure, what it was busy with.
void loadOrCreate(std::string& where) {
    where = findConfigPath();
    set(&FileState::path, where);
    log.information("config full path: " + where);
    const Poco::File file(where);
    if (file.exists() && file.getSize() != 0) {
        replaceStoreByFile(file.path(), where);
    } else {
        saveConfig();
    }
}

// Where such a value is missing, a safe one holds, on which the author of the file may rely.
bool isUnsafe(const std::string& key, const Poco::Dynamic::Var& value) {
    if (!key.starts_with("openSSL.server.") || !value.isString()) return false;
    const std::string text = value.toString();
    return text == tls::kShippedCipherList || text == tls::kShippedCertificateHandler ||
           text == tls::kShippedPassphrase;
}

// Copies what `target` lacks; `keys` gets the dotted names.
void addMissing(Poco::JSON::Object& target, const Poco::JSON::Object& defaults,
                const std::string& prefix, std::vector<std::string>& keys) {
    for (const auto& [name, value] : defaults) {
        const bool isMissing = !target.has(name);
        if (const Poco::JSON::Object::Ptr group = defaults.getObject(name)) {
            Poco::JSON::Object::Ptr inside = isMissing
                                                 ? Poco::JSON::Object::Ptr(new Poco::JSON::Object)
                                                 : target.getObject(name);
            if (inside) addMissing(*inside, *group, prefix + name + ".", keys);
            if (isMissing && inside->size() > 0) target.set(name, inside);
        } else if (isMissing && !isUnsafe(prefix + name, value)) {
            target.set(name, value);
            keys.push_back(prefix + name);
        }
    }
}

std::size_t addMissingTo(const std::string& store, const std::string& defaults) {
    Poco::JSON::Object::Ptr target = parseJsonObject(store);
    std::vector<std::string> keys;
    addMissing(*target, *parseJsonObject(defaults), "", keys);
    if (keys.empty()) return 0;
    std::ostringstream text;
    text.exceptions(std::ios::badbit);
    target->stringify(text);
    replaceStore(text.str());
    log.information("config keys added: " + Poco::cat(std::string(", "), keys.begin(), keys.end()));
    saveConfig();
    return keys.size();
}

}  // namespace

Poco::Util::JSONConfiguration& configInstance() {
    return configStore();
}

void loadConfig() {
    std::string where;
    try {
        set(&FileState::lastError, "");
        set(&FileState::defaults, "");
        const std::string defaults = storeAsText();
        loadOrCreate(where);
        set(&FileState::defaults, defaults);
        log.information("config initialized");
    } catch (const std::exception& exc) {
        log.error(std::string(exc.what()));
        const std::string reason =
            where.empty() ? exceptionText(exc) : where + ": " + exceptionText(exc);
        log.information("config error: " + reason);
        set(&FileState::lastError, reason);
    }
}

void saveConfig() {
    const std::string path = configPath();
    if (path.empty()) return;
    try {
        set(&FileState::lastError, "");
        platform::replaceFileContent(path, storeAsText());
    } catch (const std::exception& exc) {
        log.error(std::string("save config file error: ") + exc.what());
        set(&FileState::lastError, exceptionText(exc));
    }
}

std::size_t addMissingDefaults() {
    try {
        const std::string defaults = get(&FileState::defaults);
        return defaults.empty() ? 0 : addMissingTo(storeAsText(), defaults);
    } catch (const std::exception& exc) {
        log.error(std::string("add missing config keys error: ") + exceptionText(exc));
        return 0;
    }
}

std::string configPath() {
    return get(&FileState::path);
}

std::string lastConfigError() {
    return get(&FileState::lastError);
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
