#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "common/internal/Platform.h"
#include "support/Child.h"
#include "support/Sandbox.h"

namespace fs = std::filesystem;
using namespace kel;

namespace {

std::string read(const fs::path& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

long entries(const fs::path& folder) {
    return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
}

bool isPrivate(const fs::path& path) {
    return fs::status(path).permissions() == (fs::perms::owner_read | fs::perms::owner_write);
}

}  // namespace

TEST(Platform, ReplacedContentIsForTheOwnerOnlyAndALinkStaysALink) {
    const TempFolder folder;
    const ::mode_t before = ::umask(0);
    const std::string fresh = folder.path() / "fresh.json";
    const std::string target = folder.write("target.json", "old", 0666);
    const std::string link = folder.path() / "link.json";
    fs::create_symlink("target.json", link);

    platform::replaceFileContent(fresh, "one");
    platform::replaceFileContent(link, "two");
    ::umask(before);

    EXPECT_EQ(read(fresh), "one");
    EXPECT_EQ(read(target), "two");
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_TRUE(isPrivate(fresh));
    EXPECT_TRUE(isPrivate(target));
    EXPECT_EQ(entries(folder.path()), 3);
}

TEST(Platform, AFailedReplacementLeavesEverythingAsItWas) {
    const TempFolder folder;
    const std::string old = folder.write("old.json", "old");
    const std::string inTheWay = folder.path() / "directory.json";
    fs::create_directory(inTheWay);

    EXPECT_THROW(platform::replaceFileContent(inTheWay, "new"), std::system_error);
    EXPECT_THROW(platform::replaceFileContent(folder.path() / "no" / "where.json", "new"),
                 std::system_error);
    ::chmod(folder.path().c_str(), 0555);
    {
        const Unprivileged unprivileged;
        EXPECT_THROW(platform::replaceFileContent(old, "new"), std::system_error);
    }
    EXPECT_EQ(read(old), "old");
    EXPECT_EQ(entries(folder.path()), 2);
}

TEST(Platform, APrivateDirectoryMayExistButNotBeAFile) {
    const TempFolder folder;
    const std::string fresh = folder.path() / "fresh";
    platform::createPrivateDirectory(fresh);
    EXPECT_NO_THROW(platform::createPrivateDirectory(fresh));
    EXPECT_EQ(fs::status(fresh).permissions(), fs::perms::owner_all);
    EXPECT_THROW(platform::createPrivateDirectory(folder.path() / "no" / "where"),
                 std::system_error);
}

// An update replaces the files of services that go on running.
TEST(Platform, AProcessKeepsItsNameWhenItsExecutableIsReplaced) {
    const TempFolder folder;
    const std::string name = "kel-updated-" + std::to_string(::getpid());
    const std::string executable = folder.path() / name;
    fs::copy_file("/bin/sleep", executable);
    const Child child(executable, {"600"});
    const std::vector<unsigned long> expected{static_cast<unsigned long>(child.pid())};

    EXPECT_EQ(platform::processesByName(name), expected);
    fs::remove(executable);
    EXPECT_EQ(platform::processesByName(name), expected);
    fs::copy_file("/bin/sleep", executable);
    EXPECT_EQ(platform::processesByName(name), expected);
    EXPECT_TRUE(platform::processesByName(name + " (deleted)").empty());
}
