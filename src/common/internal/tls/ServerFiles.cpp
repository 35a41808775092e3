// ServerFiles.cpp - which files the settings name. A library without TLS has this part too.

#include "ServerFiles.h"

#include <Poco/Exception.h>
#include <Poco/Path.h>
#include <Poco/String.h>

#include "../../Tls.h"
#include "../config/Store.h"
#include "../platform/Paths.h"

namespace kel {

namespace {

// The defaults contain two references. They have a value also where the host has not set these
// keys.
std::string expanded(std::string value) {
    const auto fillIn = [&value](const std::string& key, const std::string& meaning) {
        if (!configStore().has(key)) Poco::replaceInPlace(value, "${" + key + "}", meaning);
    };
    fillIn("application.configDir",
           paths::applicationDirectory(Poco::Path::configHome()).toString());
    fillIn("application.name", paths::executable().getBaseName());
    return configStore().expand(value);
}

}  // namespace

std::string tls::expandedSetting(const std::string& key, const std::string& otherwise) {
    try {
        return expanded(configStore().getRawString(key, otherwise));
    } catch (const Poco::Exception& exc) {
        throw Poco::InvalidArgumentException(key, exc.displayText());
    }
}

std::string serverCertificateFile() {
    const std::string file = tls::expandedSetting("openSSL.server.certificateFile");
    return file.empty() ? tls::expandedSetting("openSSL.server.privateKeyFile") : file;
}

}  // namespace kel
