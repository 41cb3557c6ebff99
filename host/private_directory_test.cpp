#include "host/private_directory.h"

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
    bool Ensure(const std::string& directory) {
        error.clear();
        return EnsurePrivateDirectory(directory, error);
    }
    const zumod::testing::WorkDirectory work;
    std::string error;
};

mode_t ModeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

TEST(DirectoryOf, IsWhatStandsBeforeTheLastSlash) {
    EXPECT_EQ(DirectoryOf("/a/b"), "/a");
    EXPECT_EQ(DirectoryOf("/b"), "/");
    EXPECT_EQ(DirectoryOf("b"), ".");
    EXPECT_EQ(DirectoryOf("a/b/c"), "a/b");
}

TEST_F(PrivateDirectory, IsMadeForItsOwnerAlone) {
    const mode_t before = umask(0);
    EXPECT_TRUE(Ensure(work / "new")) << error;
    umask(before);
    EXPECT_EQ(ModeOf(work / "new"), 0700U);
}

TEST_F(PrivateDirectory, OneThatIsThereKeepsItsMode) {
    std::filesystem::create_directory(work / "old");
    ASSERT_EQ(chmod((work / "old").c_str(), 0755), 0);
    EXPECT_TRUE(Ensure(work / "old")) << error;
    EXPECT_EQ(ModeOf(work / "old"), 0755U);
}

TEST_F(PrivateDirectory, OneThatOthersMayWriteToIsRefused) {
    const std::string directory = work / "open";
    std::filesystem::create_directory(directory);
    for (const mode_t mode : {0770U, 0707U, 01777U, 0720U, 0702U}) {
        ASSERT_EQ(chmod(directory.c_str(), mode), 0);
        EXPECT_FALSE(Ensure(directory)) << std::oct << mode;
        EXPECT_EQ(error, directory +
                             ": others may write to the directory; choose one that is yours alone (chmod "
                             "go-w)");
    }
}

TEST_F(PrivateDirectory, OneOfAnotherUserIsRefused) {
    const std::string directory = work / "other";
    std::filesystem::create_directory(directory);
    if (chown(directory.c_str(), 65534, 65534) != 0) {
        GTEST_SKIP() << "only root can give a directory away";
    }
    EXPECT_FALSE(Ensure(directory));
    EXPECT_EQ(error, directory + ": the directory belongs to another user");
}

TEST_F(PrivateDirectory, AFileIsNoDirectory) {
    std::ofstream(work / "file") << "x";
    EXPECT_FALSE(Ensure(work / "file"));
    EXPECT_EQ(error, (work / "file") + ": is not a directory");
}

TEST_F(PrivateDirectory, OneDirectoryIsMadeAndNotAWholePath) {
    EXPECT_FALSE(Ensure(work / "a/b"));
    EXPECT_EQ(error, (work / "a/b") + ": the directory cannot be made: No such file or directory");
}

}  // namespace
}  // namespace zumod::host
