#include "common/Config.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "CapturedLog.h"
#include "Sandbox.h"

namespace fs = std::filesystem;
using kel::configInstance;

namespace {

std::string contentOf(std::ifstream in) {
    return {std::istreambuf_iterator<char>(in), {}};
}

// A fresh configuration home for each test, and the defaults.
struct Config : ::testing::Test {
    Config() {
        ::setenv("XDG_CONFIG_HOME", _home.path.c_str(), 1);
        for (auto init : {kel::initHttpOption, kel::initRpcOption, kel::initSSLOption}) init();
    }

    const TempFolder _home;
    const fs::path _directory = _home.path / "kelhost", _file = _directory / "ConfigTest.json";
};

}  // namespace

TEST_F(Config, FirstStartWritesTheDefaultsForTheOwnerOnly) {
    const CapturedLog log;
    kel::saveConfig();  // no path yet: nothing happens
    EXPECT_EQ(0u, log.count(""));
    kel::loadConfig();
    EXPECT_EQ(1u, log.count("config full path: " + _file.string()));
    EXPECT_EQ(1u, log.count("config initialized"));
    EXPECT_EQ(fs::perms(0600), fs::status(_file).permissions());
    EXPECT_EQ(fs::perms(0700), fs::status(_directory).permissions());
    const std::string defaults = contentOf(std::ifstream(_file));
    for (const char* part : {"\n  \"http\": {\n    \"apiDebug\": true", "\"port\": \"9528\"",
                             "\"sslport\": \"443\"", "\"port\": \"9527\"", "${application.name}",
                             "\"requireTLSv1\": false", "\"password\": \"vellum\""}) {
        EXPECT_NE(std::string::npos, defaults.find(part)) << part << "\n" << defaults;
    }
    fs::resize_file(_file, 0);  // counts as missing
    kel::loadConfig();
    EXPECT_EQ(defaults, contentOf(std::ifstream(_file)));
}

TEST_F(Config, AMalformedFileKeepsStoreAndFile) {
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    for (const std::string text : {"{\"http\": {", "[1,2]", "42", "\xff\xfe", deep.c_str()}) {
        const CapturedLog log;
        _home.write("kelhost/ConfigTest.json", text);
        kel::loadConfig();
        EXPECT_EQ(0u, log.count("config initialized"));
        EXPECT_EQ(2u, log.count(""));  // the path, and what is wrong
        EXPECT_EQ(9527, configInstance().getInt(kel::rpc::kRpcPort));
        EXPECT_EQ(text, contentOf(std::ifstream(_file))) << text.substr(0, 20);
    }
}

TEST_F(Config, AFileReplacesTheDefaultsAndSavingReplacesItInOneStep) {
    const CapturedLog log;
    const std::string text = R"({"http":{"port":8080}})";
    const std::string target = _home.write("kelhost/target.json", text, 0666);
    fs::create_symlink(target, _file);
    kel::loadConfig();
    EXPECT_EQ(8080, configInstance().getInt(kel::http::kPort));
    EXPECT_FALSE(configInstance().has(kel::http::kApiDebug));
    std::ifstream reader(_file);
    configInstance().setString("own.secret", "\xC3\xA4 \"quoted\"");
    kel::saveConfig();
    EXPECT_EQ(text, contentOf(std::move(reader))) << "a reader keeps the old file";
    kel::loadConfig();
    EXPECT_EQ("\xC3\xA4 \"quoted\"", configInstance().getString("own.secret"));
    EXPECT_TRUE(fs::is_symlink(_file));
    EXPECT_EQ(fs::perms(0600), fs::status(target).permissions());
    fs::remove(target);
    fs::create_directory(target);
    kel::saveConfig();
    EXPECT_EQ(1u, log.count("save config file error: "));
    EXPECT_EQ(2, std::distance(fs::directory_iterator(_directory), {})) << "left a neighbour";
}
