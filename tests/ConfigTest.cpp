#include "common/Config.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/wait.h>

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
        configInstance().loadEmpty("http");
        for (auto init : {kel::initHttpOption, kel::initRpcOption, kel::initSSLOption}) init();
    }

    std::string saved(const std::string& value) {
        configInstance().setString("own.value", value);
        kel::saveConfig();
        return fs::is_regular_file(_file) ? contentOf(std::ifstream(_file)) : "";
    }

    std::size_t filesInFolder() {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(_directory), {}));
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

TEST_F(Config, AMalformedFileKeepsStoreAndFileAndTellsThePlace) {
    configInstance().loadEmpty("http");
    kel::initHttpOption();
    kel::loadConfig();
    const std::string whole = contentOf(std::ifstream(_file));
    EXPECT_EQ(_file, kel::configPath());
    std::vector<std::pair<std::string, std::string>> cases = {
        {"{\n  \"a\": tru }", ":2:11: JSON Exception: "},
        {"{\"a\": 1}}", ":1:8: JSON Exception: Excess characters"},
        {"{\"a\":\n\n99999999999999999999999}", ":3:23: Syntax error: Not a valid unsigned"},
        {"[1,2]", ": Bad cast exception: the root is no JSON object"},
        {"\xff\xfe", ":1:1: JSON Exception: "},
        {std::string(100000, '[') + std::string(100000, ']'), ":1:129: JSON Exception: Maximum"},
    };
    for (std::size_t i = 1; i < whole.size(); ++i) cases.emplace_back(whole.substr(0, i), ":");
    for (const auto& [text, reason] : cases) {
        SCOPED_TRACE(text.substr(0, 2000));
        const CapturedLog log;
        _home.write("kelhost/ConfigTest.json", text);
        kel::loadConfig();
        ASSERT_EQ(0u, kel::lastConfigError().find(_file.string() + reason))
            << kel::lastConfigError();
        ASSERT_EQ(1u, log.count("config error: " + kel::lastConfigError()));
        ASSERT_EQ(3u, log.count(""));  // the path, what is wrong, and why
        ASSERT_EQ(443, configInstance().getInt(kel::http::kSslPort));
        ASSERT_EQ(0u, kel::addMissingDefaults());
        ASSERT_EQ(text, contentOf(std::ifstream(_file)));
    }
}

TEST_F(Config, AFileReplacesTheDefaultsUntilTheHostAddsWhatItLacks) {
    const CapturedLog log;
    const std::string text =
        "\xEF\xBB\xBF"
        R"({"http":{"port":8080,"sslport":null},"rpc":7})";
    _home.write("kelhost/ConfigTest.json", text);
    configInstance().setInt("list[1].a", 5);
    kel::loadConfig();
    EXPECT_EQ(8080, configInstance().getInt(kel::http::kPort));
    EXPECT_FALSE(configInstance().has(kel::http::kApiDebug));
    EXPECT_EQ(text, contentOf(std::ifstream(_file)));
    EXPECT_EQ(13u, kel::addMissingDefaults());  // all but the three that are not safe
    EXPECT_FALSE(configInstance().has("openSSL.server.invalidCertificateHandler.name"));
    EXPECT_EQ(1u, log.count("config keys added: http.apiDebug, list, openSSL.server.caConfig, "));
    kel::loadConfig();
    EXPECT_EQ(5, configInstance().getInt("list[1].a"));
    EXPECT_EQ(8080, configInstance().getInt(kel::http::kPort));
    EXPECT_EQ(7, configInstance().getInt("rpc"));
    EXPECT_EQ(0u, kel::addMissingDefaults());
}

TEST_F(Config, SavingReplacesTheFileInOneStepAndKeepsWhatItIs) {
    const CapturedLog log;
    const std::string target = _home.write("kelhost/target.json", "{}", 0640);
    const bool root = ::chown(target.c_str(), 65534, 65534) == 0;
    const std::string victim = _home.write("victim", "untouched");
    fs::create_symlink(target, _file);
    fs::create_symlink(victim, target + ".tmp");
    kel::loadConfig();
    std::ifstream reader(_file);
    EXPECT_NE(std::string::npos, saved("\xC3\xA4 \\\"").find("\"value\": \"\xC3\xA4 \\\\\\\"\""));
    EXPECT_EQ("{}", contentOf(std::move(reader))) << "a reader keeps the old file";
    struct stat status {};
    ::stat(target.c_str(), &status);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(status.st_uid, root ? 65534 : ::geteuid());
    EXPECT_TRUE(fs::is_symlink(_file));
    EXPECT_EQ("untouched", contentOf(std::ifstream(victim)));
    EXPECT_EQ(2u, filesInFolder()) << "left a neighbour";
    EXPECT_EQ(0u, log.count("error"));

    const std::string before = saved("before");
    ::chmod(target.c_str(), 0444);
    EXPECT_EQ(before, saved("refused"));
    EXPECT_EQ(1u, log.count("save config file error: write read-only file " + target));
    fs::remove(target);
    const std::string anew = saved("anew");
    EXPECT_EQ(anew, contentOf(std::ifstream(target))) << "the link's file was missing";
    EXPECT_TRUE(fs::is_symlink(_file));
    fs::remove(target);
    fs::create_directory(target);
    saved("no file");
    EXPECT_EQ(kel::lastConfigError(),
              "write other than a regular file " + target + ": Is a directory");
    EXPECT_EQ(2u, filesInFolder());
}

TEST_F(Config, AFileThatNothingCanBeRenamedOverIsWrittenInPlace) {
    _home.write("kelhost/ConfigTest.json", "{}", 0666);
    kel::loadConfig();
    const auto expectSaved = [&](const std::string& value) {
        EXPECT_NE(std::string::npos, saved(value).find("\"" + value + "\"\n  }\n}"))
            << saved(value);
        EXPECT_EQ("", kel::lastConfigError());
        EXPECT_EQ(1u, filesInFolder());
    };
    ::chmod(_directory.c_str(), 0555);
    unprivileged([&] {
        expectSaved("a longer value");
        expectSaved("short");
    });
    ::chmod(_directory.c_str(), 0755);
    const std::string mounted = _home.write("mounted.json", "{}");
    if (const ::pid_t child = ::fork(); child == 0) {
        const bool own = ::unshare(CLONE_NEWNS) == 0 &&
                         ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                         ::mount(mounted.c_str(), _file.c_str(), nullptr, MS_BIND, nullptr) == 0;
        if (own) expectSaved("mounted");
        ::_exit(HasFailure() ? 1 : own ? 0 : 77);
    }
    int status = 0;
    ::wait(&status);
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no right to mount: the mount point is left out";
    EXPECT_EQ(0, status);
    EXPECT_NE(std::string::npos, contentOf(std::ifstream(mounted)).find("\"mounted\""));
}

TEST_F(Config, AKilledSaveLeavesACompleteFileAndTheNextOneCleansUp) {
    kel::loadConfig();
    const std::string values[] = {std::string(400'000, 'a'), std::string(100'000, 'b')};
    const std::string versions[] = {saved(values[0]), saved(values[1])};
    const auto isComplete = [&](const fs::path& path) {
        std::error_code missing;
        const auto size = fs::file_size(path, missing);
        return missing || size == versions[0].size() || size == versions[1].size();
    };
    const fs::path neighbour = fs::path(_file) += ".tmp";
    for (int round = 0; round < 5; ++round) {
        const ::pid_t child = ::fork();
        if (child == 0) {
            ::alarm(60);  // where nobody is left to kill it
            for (int i = 0;; i = 1 - i) saved(values[i]);
        }
        int looks = 0;  // the child is killed where a file is seen half written
        while (looks < 1'000'000 && isComplete(neighbour) && isComplete(_file)) ++looks;
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        const std::string content = contentOf(std::ifstream(_file));
        EXPECT_TRUE(content == versions[0] || content == versions[1]) << content.size();
        EXPECT_EQ(versions[1], saved(values[1]));
        EXPECT_EQ(1u, filesInFolder());
    }
}

TEST_F(Config, AnUnusableFolderHasTheSameTextWhicheverFolderItIs) {
    for (const fs::path& folder : {_directory, _home.path}) {
        fs::remove_all(folder);
        std::ofstream(folder) << "a file";
        kel::loadConfig();
        EXPECT_EQ("create directory " + _directory.string() + "/: Not a directory",
                  kel::lastConfigError());
    }
}
