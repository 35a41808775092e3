// Every test binary runs with private home folders, made afresh and removed afterwards.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    char home[] = "/tmp/kel-home-XXXXXX";
    if (::mkdtemp(home) == nullptr) return 1;
    for (const char* name : {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME"}) ::setenv(name, home, 1);
    // The child of a death test writes where its parent looks.
    if (const char* data = ::getenv("KEL_TEST_DATA_HOME")) ::setenv("XDG_DATA_HOME", data, 1);
    const int result = RUN_ALL_TESTS();
    std::filesystem::remove_all(home);
    return result;
}
