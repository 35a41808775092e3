#include "common/Config.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "CapturedLog.h"

namespace fs = std::filesystem;
using kel::configInstance;

namespace {

// A fresh configuration home and an empty store for each test.
class Config : public ::testing::Test {
protected:
    void SetUp() override {
        char home[] = "/tmp/kel-config-XXXXXX";
        _home = ::mkdtemp(home);
        ::setenv("XDG_CONFIG_HOME", _home.c_str(), 1);
        std::istringstream empty("{}");
        configInstance().load(empty);
    }

    void TearDown() override { fs::remove_all(_home); }

    fs::path file() const { return fs::path(_home) / "kelhost" / "ConfigTest.json"; }

    void writeFile(const std::string& content) const {
        fs::create_directories(file().parent_path());
        std::ofstream(file()) << content;
    }

    std::string content() const {
        std::ostringstream text;
        text << std::ifstream(file()).rdbuf();
        return text.str();
    }

    std::string _home;
    CapturedLog _log;
};

mode_t modeOf(const fs::path& path) {
    struct stat status {};
    ::stat(path.c_str(), &status);
    return status.st_mode & 0777;
}

}  // namespace

TEST_F(Config, FirstStartWritesTheDefaultsForTheOwnerOnly) {
    kel::saveConfig();  // no path yet: nothing happens
    EXPECT_EQ(0u, _log.count(""));

    kel::initHttpOption();
    kel::initRpcOption();
    kel::initSSLOption();
    kel::loadConfig();

    EXPECT_EQ(1u, _log.count("config full path: " + file().string()));
    EXPECT_EQ(1u, _log.count("config initialized"));
    EXPECT_EQ(0600u, modeOf(file()));
    EXPECT_EQ(0700u, modeOf(file().parent_path()));
    for (const char* part :
         {"\n  \"http\": {\n    \"apiDebug\": true", "\"port\": \"9528\"", "\"sslport\": \"443\"",
          "\"port\": \"9527\"", "\"verificationDepth\": 9", "\"sessionCacheSize\": 100",
          "\"requireTLSv1\": false", "\"privateKeyFile\": \"${application.configDir}any.pem\"",
          "\"password\": \"vellum\"", "ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH"}) {
        EXPECT_NE(std::string::npos, content().find(part)) << part << "\n" << content();
    }
    EXPECT_EQ(9528, configInstance().getInt(kel::http::kPort));
    EXPECT_EQ("9528", configInstance().getString(kel::http::kPort));
}

TEST_F(Config, AFileWithContentReplacesTheDefaultsAndIsNotRewritten) {
    const std::string text = R"({"http":{"port":8080},"own":{"name":"x"}})";
    writeFile(text);
    kel::initHttpOption();
    kel::initRpcOption();
    kel::loadConfig();
    EXPECT_EQ(8080, configInstance().getInt(kel::http::kPort));
    EXPECT_EQ("x", configInstance().getString("own.name"));
    EXPECT_FALSE(configInstance().has(kel::http::kApiDebug));
    EXPECT_FALSE(configInstance().has(kel::rpc::kRpcPort));
    EXPECT_EQ(text, content());
}

TEST_F(Config, AnEmptyFileCountsAsMissing) {
    writeFile("");
    kel::initRpcOption();
    kel::loadConfig();
    EXPECT_NE(std::string::npos, content().find("9527"));
}

TEST_F(Config, AMalformedFileKeepsStoreAndFile) {
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    for (const std::string& text : {std::string("{\"http\": {"), std::string("[1,2]"),
                                    std::string("42"), std::string("\xff\xfe"), deep}) {
        SCOPED_TRACE(text.substr(0, 20));
        CapturedLog log;
        writeFile(text);
        kel::initRpcOption();
        kel::loadConfig();
        EXPECT_EQ(0u, log.count("config initialized"));
        EXPECT_EQ(2u, log.count(""));  // the path, and what is wrong
        EXPECT_EQ(9527, configInstance().getInt(kel::rpc::kRpcPort));
        EXPECT_EQ(text, content());
    }
}

TEST_F(Config, ADirectoryThatCannotBeMadeIsOneErrorLine) {
    std::ofstream(_home + "/occupied") << "a file";
    ::setenv("XDG_CONFIG_HOME", (_home + "/occupied").c_str(), 1);
    kel::loadConfig();
    ASSERT_EQ(1u, _log.count(""));
    EXPECT_EQ(Poco::Message::PRIO_ERROR, _log.find("").getPriority());
}

TEST_F(Config, SavingReplacesTheFileOrLeavesTheOldOne) {
    kel::initRpcOption();
    kel::loadConfig();
    configInstance().setString("own.secret", "\xC3\xA4 \"quoted\"");
    kel::saveConfig();
    const std::string saved = content();
    kel::loadConfig();
    EXPECT_EQ("\xC3\xA4 \"quoted\"", configInstance().getString("own.secret"));

    // A directory in the file's place cannot be renamed over.
    fs::remove(file());
    fs::create_directories(file() / "in the way");
    kel::saveConfig();
    EXPECT_EQ(1u, _log.count("save config file error: "));
    EXPECT_EQ(1, std::distance(fs::directory_iterator(file().parent_path()), {}));
}
