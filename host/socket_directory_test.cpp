#include "host/socket_directory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/process/work_directory.h"

namespace zumod::host {
namespace {

class PrivateDirectory : public ::testing::Test {
protected:
    // Whether it succeeds; the text is in `error` if it does not.
    bool Ensure(const std::string& directory) {
        const auto result = OpenPrivateDirectory(directory);
        error = result ? "" : result.error().text;
        return result.has_value();
    }
    const zumod::testing::WorkDirectory work;
    std::string error;
};

mode_t ModeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

TEST_F(PrivateDirectory, IsCreatedForItsOwnerOnly) {
    const mode_t before = umask(0);
    EXPECT_TRUE(Ensure(work / "new")) << error;
    umask(before);
    EXPECT_EQ(ModeOf(work / "new"), 0700U);
}

TEST_F(PrivateDirectory, KeepsItsModeIfItExists) {
    std::filesystem::create_directory(work / "old");
    ASSERT_EQ(chmod((work / "old").c_str(), 0755), 0);
    EXPECT_TRUE(Ensure(work / "old")) << error;
    EXPECT_EQ(ModeOf(work / "old"), 0755U);
}

TEST_F(PrivateDirectory, IsRefusedIfOthersMayWriteToIt) {
    const std::string directory = work / "open";
    std::filesystem::create_directory(directory);
    for (const mode_t mode : {0770U, 0707U, 0720U, 0702U}) {
        ASSERT_EQ(chmod(directory.c_str(), mode), 0);
        EXPECT_FALSE(Ensure(directory)) << std::oct << mode;
        EXPECT_EQ(error,
                  directory +
                      ": others may write to the directory; choose one that only you may write to (chmod "
                      "go-w)");
    }
}

TEST_F(PrivateDirectory, IsRefusedIfItBelongsToAnotherUser) {
    const std::string directory = work / "other";
    std::filesystem::create_directory(directory);
    if (chown(directory.c_str(), 65534, 65534) != 0) {
        GTEST_SKIP() << "only root can give a directory away";
    }
    EXPECT_FALSE(Ensure(directory));
    EXPECT_EQ(error, directory + ": the directory belongs to another user");
}

TEST_F(PrivateDirectory, IsRefusedIfItIsAFile) {
    std::ofstream(work / "file") << "x";
    EXPECT_FALSE(Ensure(work / "file"));
    EXPECT_EQ(error, (work / "file") + ": is not a directory");
}

TEST_F(PrivateDirectory, IsToBeANewOneInADirectoryThatEverybodyShares) {
    const std::string directory = work / "shared";
    std::filesystem::create_directory(directory);
    ASSERT_EQ(chmod(directory.c_str(), 01777), 0);
    EXPECT_FALSE(Ensure(directory));
    EXPECT_EQ(error, directory + ": others may write to the directory; choose a new one in it, such as " +
                         directory + "/zu");
    EXPECT_TRUE(Ensure(directory + "/zu")) << error;
}

TEST_F(PrivateDirectory, ItsParentsAreCreatedForTheirOwnerOnly) {
    const mode_t before = umask(0);
    EXPECT_TRUE(Ensure(work / "a/b/c/")) << error;
    umask(before);
    for (const char* name : {"a", "a/b", "a/b/c"}) {
        EXPECT_EQ(ModeOf(work / name), 0700U);
    }
}

TEST_F(PrivateDirectory, IsRefusedIfOthersMayWriteToOneAbove) {
    std::filesystem::create_directories(work / "open/a/b");
    ASSERT_EQ(chmod((work / "open").c_str(), 0777), 0);
    for (const char* name : {"open/a/b", "open/a/b/new", "open/new"}) {
        EXPECT_FALSE(Ensure(work / name));
        EXPECT_EQ(error, (work / "open") + ": others may write to the directory and replace what is in it");
    }
    EXPECT_FALSE(std::filesystem::exists(work / "open/a/b/new"));
    EXPECT_FALSE(std::filesystem::exists(work / "open/new"));
    // The same through a link that is somewhere else.
    std::filesystem::create_directory_symlink(work / "open/a", work / "link");
    EXPECT_FALSE(Ensure(work / "link/b"));
    EXPECT_EQ(error, (work / "open") + ": others may write to the directory and replace what is in it");
}

TEST_F(PrivateDirectory, IsRefusedIfOneAboveOrALinkBelongsToAnotherUser) {
    std::filesystem::create_directories(work / "other/mine");
    std::filesystem::create_directory(work / "target");
    std::filesystem::create_directory_symlink(work / "target", work / "link");
    if (lchown((work / "other").c_str(), 65534, 65534) != 0 ||
        lchown((work / "link").c_str(), 65534, 65534) != 0) {
        GTEST_SKIP() << "only root can give a directory away";
    }
    EXPECT_FALSE(Ensure(work / "other/mine"));
    EXPECT_EQ(error, (work / "other") + ": the directory belongs to another user");
    EXPECT_FALSE(Ensure(work / "link"));
    EXPECT_EQ(error, (work / "link") + ": the link belongs to another user");
}

}  // namespace
}  // namespace zumod::host
