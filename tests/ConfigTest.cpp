#include "common/Config.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <sstream>

#include "CapturedLog.h"
#include "Sandbox.h"

namespace fs = std::filesystem;
using kel::configInstance;

namespace {

// A fresh configuration home and an empty store for each test.
class Config : public ::testing::Test {
protected:
    Config() {
        ::setenv("XDG_CONFIG_HOME", _home.path.c_str(), 1);
        std::istringstream empty("{}");
        configInstance().load(empty);
    }

    std::string content() const {
        std::ifstream in(_file);
        return {std::istreambuf_iterator<char>(in), {}};
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
    for (const auto init : {kel::initHttpOption, kel::initRpcOption, kel::initSSLOption}) init();
    kel::loadConfig();
    EXPECT_EQ(1u, _log.count("config full path: " + _file));
    EXPECT_EQ(1u, _log.count("config initialized"));
    EXPECT_EQ(fs::perms(0600), fs::status(_file).permissions());
    EXPECT_EQ(fs::perms(0700), fs::status(_directory).permissions());
    const std::string defaults = content();
    for (const char* part : {"\n  \"http\": {\n    \"apiDebug\": true", "\"port\": \"9528\"",
                             "\"sslport\": \"443\"", "\"port\": \"9527\"", "${application.name}",
                             "\"requireTLSv1\": false", "\"password\": \"vellum\""}) {
        EXPECT_NE(std::string::npos, defaults.find(part)) << part << "\n" << defaults;
    }
    fs::resize_file(_file, 0);  // counts as missing
    kel::loadConfig();
    EXPECT_EQ(defaults, content());
}

TEST_F(Config, AMalformedFileKeepsStoreAndFile) {
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    kel::initRpcOption();
    for (const std::string text : {"{\"http\": {", "[1,2]", "42", "\xff\xfe", deep.c_str()}) {
        const CapturedLog log;
        _home.write("kelhost/ConfigTest.json", text);
        kel::loadConfig();
        EXPECT_EQ(0u, log.count("config initialized"));
        EXPECT_EQ(2u, log.count(""));  // the path, and what is wrong
        EXPECT_EQ(9527, configInstance().getInt(kel::rpc::kRpcPort));
        EXPECT_EQ(text, content()) << text.substr(0, 20);
    }
}

TEST_F(Config, AFileReplacesTheDefaultsAndSavingReplacesItInOneStep) {
    const std::string text = R"({"http":{"port":8080}})";
    const std::string target = _home.write("kelhost/target.json", text, 0666);
    fs::create_symlink(target, _file);
    kel::initHttpOption();
    kel::loadConfig();
    EXPECT_EQ(8080, configInstance().getInt(kel::http::kPort));
    EXPECT_FALSE(configInstance().has(kel::http::kApiDebug)) << "the file replaces the defaults";
    EXPECT_EQ(text, content());
    configInstance().setString("own.secret", "\xC3\xA4 \"quoted\"");
    kel::saveConfig();
    configInstance().setString("own.secret", "lost");
    fs::permissions(_directory, fs::perms(0555));
    unprivileged([] { kel::saveConfig(); });
    fs::permissions(_directory, fs::perms(0700));
    kel::loadConfig();
    EXPECT_EQ("\xC3\xA4 \"quoted\"", configInstance().getString("own.secret"));
    EXPECT_TRUE(fs::is_symlink(_file));
    EXPECT_EQ(fs::perms(0600), fs::status(target).permissions());
    fs::remove(target);
    fs::create_directory(target);
    kel::saveConfig();
    EXPECT_EQ(2u, _log.count("save config file error: "));
    EXPECT_EQ(2, std::distance(fs::directory_iterator(_directory), {})) << "left a neighbour";
}
