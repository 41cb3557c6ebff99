#include "peer/output_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/support/process/work_directory.h"

namespace zumod::peer {
namespace {

namespace fs = std::filesystem;

constexpr uint8_t kNew[] = {'n', 'e', 'w'};

std::string Content(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class OutputFileTest : public ::testing::Test {
protected:
    static void Put(const std::string& file, const std::string& text) { std::ofstream(file) << text; }
    size_t FilesInWork() const {
        return static_cast<size_t>(
            std::distance(fs::directory_iterator(work.Path()), fs::directory_iterator()));
    }
    static OutputFile Create(const std::string& file, bool replace) {
        return OutputFile::Create(file, replace).value();
    }
    static std::string ErrorOf(const std::string& file, bool replace) {
        const auto output = OutputFile::Create(file, replace);
        return output ? "" : output.error().text;
    }

    const testing::WorkDirectory work;
    const std::string path = work / "out.png";
};

TEST_F(OutputFileTest, AppearsWhenItIsComplete) {
    OutputFile file = Create(path, false);
    EXPECT_TRUE(file.Write(kNew));
    EXPECT_FALSE(fs::exists(path));
    EXPECT_TRUE(file.Commit());
    EXPECT_EQ(Content(path), "new");
    EXPECT_EQ(FilesInWork(), 1U);
}

TEST_F(OutputFileTest, HasTheModeThatTheUmaskAllows) {
    const mode_t before = umask(027);
    {
        OutputFile file = Create(path, false);
        EXPECT_TRUE(file.Commit());
    }
    umask(before);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST_F(OutputFileTest, LeavesNothingBehindWithoutACommit) {
    {
        OutputFile file = Create(path, false);
        EXPECT_TRUE(file.Write(kNew));
    }
    EXPECT_EQ(FilesInWork(), 0U);
}

TEST_F(OutputFileTest, KeepsAFileThatExists) {
    Put(path, "old");
    EXPECT_EQ(ErrorOf(path, false), path + " exists (--overwrite replaces it)");
    EXPECT_EQ(Content(path), "old");
}

TEST_F(OutputFileTest, ReplacesAFileOnlyAtTheEnd) {
    Put(path, "old");
    {
        OutputFile given_up = Create(path, true);
        EXPECT_TRUE(given_up.Write(kNew));
    }
    EXPECT_EQ(Content(path), "old");
    OutputFile file = Create(path, true);
    EXPECT_TRUE(file.Write(kNew));
    EXPECT_EQ(Content(path), "old");
    EXPECT_TRUE(file.Commit());
    EXPECT_EQ(Content(path), "new");
}

TEST_F(OutputFileTest, KeepsAFileThatAppearedMeanwhileAndTheNewOneToo) {
    OutputFile file = Create(path, false);
    EXPECT_TRUE(file.Write(kNew));
    Put(path, "other");
    EXPECT_FALSE(file.Commit());
    EXPECT_EQ(Content(path), "other");
    EXPECT_EQ(FilesInWork(), 2U);
}

TEST_F(OutputFileTest, ReplacesTheFileThatALinkPointsAt) {
    Put(work / "real.png", "old");
    fs::create_symlink("real.png", path);
    OutputFile file = Create(path, true);
    EXPECT_TRUE(file.Write(kNew));
    EXPECT_TRUE(file.Commit());
    EXPECT_TRUE(fs::is_symlink(path));
    EXPECT_EQ(Content(work / "real.png"), "new");
}

TEST_F(OutputFileTest, ReplacesOnlyARegularFile) {
    EXPECT_EQ(ErrorOf("/dev/null", true), "/dev/null is not a regular file");
    EXPECT_EQ(ErrorOf(work.Path(), true), work.Path() + " is not a regular file");
}

TEST_F(OutputFileTest, NeedsADirectory) {
    EXPECT_EQ(ErrorOf(work / "none/out.png", false),
              (work / "none/out.png") + " cannot be written: No such file or directory");
}

}  // namespace
}  // namespace zumod::peer
