#include "common/Config.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <sstream>

#include "CapturedLog.h"
#include "Sandbox.h"

namespace fs = std::filesystem;
using kel::configInstance;

namespace {

constexpr fs::perms kOwnerOnly = fs::perms::owner_read | fs::perms::owner_write;

// A fresh configuration home and an empty store for each test.
class Config : public ::testing::Test {
protected:
    Config() {
        ::setenv("XDG_CONFIG_HOME", _home.path.c_str(), 1);
        std::istringstream empty("{}");
        configInstance().load(empty);
    }

    const TempFolder _home;
    const fs::path _directory = _home.path / "kelhost";
    const std::string _file = _directory / "ConfigTest.json";
    const CapturedLog _log;
};

}  // namespace

TEST_F(Config, FirstStartWritesTheDefaultsForTheOwnerOnly) {
    kel::saveConfig();  // no path yet: nothing happens
    EXPECT_EQ(0u, _log.count(""));
    kel::initHttpOption();
    kel::initRpcOption();
    kel::initSSLOption();
    kel::loadConfig();
    EXPECT_EQ(1u, _log.count("config full path: " + _file));
    EXPECT_EQ(1u, _log.count("config initialized"));
    EXPECT_EQ(kOwnerOnly, fs::status(_file).permissions());
    EXPECT_EQ(fs::perms::owner_all, fs::status(_directory).permissions());
    const std::string content = contentOf(_file);
    for (const char* part : {"\n  \"http\": {\n    \"apiDebug\": true", "\"port\": \"9528\"",
                             "\"sslport\": \"443\"", "\"port\": \"9527\"", "${application.name}",
                             "\"requireTLSv1\": false", "\"password\": \"vellum\""}) {
        EXPECT_NE(std::string::npos, content.find(part)) << part << "\n" << content;
    }
    fs::resize_file(_file, 0);  // counts as missing
    kel::loadConfig();
    EXPECT_EQ(content, contentOf(_file));
}

TEST_F(Config, AFileWithContentReplacesTheDefaultsAndIsNotRewritten) {
    const std::string text = R"({"http":{"port":8080}})";
    _home.write("kelhost/ConfigTest.json", text);
    kel::initHttpOption();
    kel::loadConfig();
    EXPECT_EQ(8080, configInstance().getInt(kel::http::kPort));
    EXPECT_FALSE(configInstance().has(kel::http::kApiDebug));
    EXPECT_EQ(text, contentOf(_file));
}

TEST_F(Config, AMalformedFileKeepsStoreAndFile) {
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    kel::initRpcOption();
    for (const std::string& text : {std::string("{\"http\": {"), std::string("[1,2]"),
                                    std::string("42"), std::string("\xff\xfe"), deep}) {
        SCOPED_TRACE(text.substr(0, 20));
        const CapturedLog log;
        _home.write("kelhost/ConfigTest.json", text);
        kel::loadConfig();
        EXPECT_EQ(0u, log.count("config initialized"));
        EXPECT_EQ(2u, log.count(""));  // the path, and what is wrong
        EXPECT_EQ(9527, configInstance().getInt(kel::rpc::kRpcPort));
        EXPECT_EQ(text, contentOf(_file));
    }
}

TEST_F(Config, SavingReplacesTheFileThatALinkLeadsTo) {
    const std::string target = _home.write("kelhost/target.json", "{}", 0666);
    fs::create_symlink(target, _file);
    kel::loadConfig();
    configInstance().setString("secret", "\xC3\xA4 \"quoted\"");
    kel::saveConfig();
    configInstance().remove("secret");
    kel::loadConfig();
    EXPECT_EQ("\xC3\xA4 \"quoted\"", configInstance().getString("secret"));
    EXPECT_TRUE(fs::is_symlink(_file));
    EXPECT_EQ(kOwnerOnly, fs::status(target).permissions());
}

TEST_F(Config, FailuresAreLoggedAndLeaveEverythingAsItWas) {
    kel::loadConfig();
    const std::string old = contentOf(_file);
    kel::initRpcOption();
    fs::permissions(_directory, fs::perms::others_read | fs::perms::others_exec);
    unprivileged([] { kel::saveConfig(); });
    fs::permissions(_directory, fs::perms::owner_all);
    EXPECT_EQ(1u, _log.count("save config file error: "));
    EXPECT_EQ(old, contentOf(_file));

    fs::remove(_file);
    fs::create_directory(_file);
    kel::saveConfig();
    EXPECT_EQ(2u, _log.count("save config file error: "));
    EXPECT_EQ(1, std::distance(fs::directory_iterator(_directory), {}));

    ::setenv("XDG_CONFIG_HOME", _home.write("occupied").c_str(), 1);
    kel::loadConfig();
    EXPECT_EQ(5u, _log.count(""));
}
