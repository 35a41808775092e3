// Every test binary runs with private home folders, made afresh and removed afterwards.

#include <Poco/Environment.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>

namespace fs = std::filesystem;

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    const fs::path home =
        fs::temp_directory_path() / ("kel-home-" + std::to_string(std::random_device{}()));
    if (!fs::create_directory(home)) return 1;
    for (const char* name :
         {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "APPDATA", "LOCALAPPDATA"}) {
        Poco::Environment::set(name, home.string());
    }
    const int result = RUN_ALL_TESTS();
    std::error_code stillOpen;  // Windows removes no file that a log still writes to
    fs::remove_all(home, stillOpen);
    return result;
}
