#include "peer/output_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/process/work_directory.h"

namespace zumod::peer {
namespace {

namespace fs = std::filesystem;

constexpr uint8_t kNew[] = {'n', 'e', 'w'};

std::string Content(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// What fsync() is called for, and the error that it shall report instead.
std::vector<std::string> synced;
int sync_error = 0;
std::string watched_path;

class OutputFileTest : public ::testing::Test {
protected:
    OutputFileTest() { watched_path = path; }

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

TEST_F(OutputFileTest, AHelperGivesItItsNameOrRemovesIt) {
    {
        OutputFile given_up = Create(path, false);
        EXPECT_TRUE(given_up.UseHelper());
        EXPECT_TRUE(given_up.Write(kNew));
    }
    EXPECT_EQ(FilesInWork(), 0U);
    OutputFile file = Create(path, false);
    EXPECT_TRUE(file.UseHelper());
    EXPECT_TRUE(file.Write(kNew));
    EXPECT_FALSE(fs::exists(path));
    EXPECT_TRUE(file.Commit());
    EXPECT_EQ(Content(path), "new");
    EXPECT_EQ(FilesInWork(), 1U);
}

TEST_F(OutputFileTest, AHelperReportsThatAFileAppearedMeanwhile) {
    OutputFile file = Create(path, false);
    EXPECT_TRUE(file.UseHelper());
    EXPECT_TRUE(file.Write(kNew));
    Put(path, "other");
    const auto result = file.Commit();
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().text.rfind(path + " cannot be put in place: File exists; it is kept as ", 0),
              0U);
    EXPECT_EQ(Content(path), "other");
}

TEST_F(OutputFileTest, AppearsWhenItIsComplete) {
    OutputFile file = Create(path, false);
    EXPECT_TRUE(file.Write(kNew));
    EXPECT_FALSE(fs::exists(path));
    EXPECT_TRUE(file.Commit());
    EXPECT_EQ(Content(path), "new");
    EXPECT_EQ(FilesInWork(), 1U);
}

TEST_F(OutputFileTest, IsPrivateUnlessAModeIsGiven) {
    const auto mode = [this](mode_t mask, std::optional<mode_t> given) {
        const mode_t before = umask(mask);
        {
            OutputFile file = OutputFile::Create(path, true, given).value();
            EXPECT_TRUE(file.Commit());
        }
        umask(before);
        struct stat status {};
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        return status.st_mode & 07777U;
    };
    EXPECT_EQ(mode(0027, std::nullopt), 0600U);
    EXPECT_EQ(mode(0227, std::nullopt), 0400U);
    EXPECT_EQ(mode(0077, 0640), 0640U);
}

TEST_F(OutputFileTest, IsOnTheDiskBeforeItGetsItsNameAndSoIsTheNameThen) {
    OutputFile file = Create(path, false);
    EXPECT_TRUE(file.Write(kNew));
    synced.clear();
    EXPECT_TRUE(file.Commit());
    EXPECT_EQ(synced, (std::vector<std::string>{"file, not in place", "directory, in place"}));
}

TEST_F(OutputFileTest, NeverReplacesAnotherOneByWhatIsNotOnTheDisk) {
    Put(path, "old");
    OutputFile file = Create(path, true);
    EXPECT_TRUE(file.Write(kNew));
    sync_error = ENOSPC;
    const auto committed = file.Commit();
    sync_error = 0;
    ASSERT_FALSE(committed);
    const std::string expected =
        path + " cannot be put in place: No space left on device; it is kept as " + (work / "out.part-");
    EXPECT_EQ(committed.error().text.substr(0, expected.size()), expected);
    EXPECT_EQ(Content(path), "old");
    EXPECT_EQ(FilesInWork(), 2U);
}

TEST_F(OutputFileTest, IsWrittenAtAnyPosition) {
    OutputFile file = Create(path, false);
    EXPECT_EQ(file.WriteAt(2, kNew), 0);
    EXPECT_EQ(file.WriteAt(0, kNew), 0);
    EXPECT_TRUE(file.Commit());
    EXPECT_EQ(Content(path), "newew");
}

TEST_F(OutputFileTest, CanBeKeptUnderItsTemporaryName) {
    std::string kept;
    {
        OutputFile file = Create(path, false);
        EXPECT_TRUE(file.Write(kNew));
        kept = file.Keep(2);
    }
    EXPECT_EQ(kept.rfind(work / "out.part-", 0), 0U) << kept;
    EXPECT_EQ(kept.substr(kept.size() - 4), ".png");
    EXPECT_EQ(Content(kept), "ne");
    EXPECT_EQ(FilesInWork(), 1U);
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

// Instead of the C library's.
extern "C" int fsync(int descriptor) {
    struct stat status {};
    fstat(descriptor, &status);
    const bool in_place = access(zumod::peer::watched_path.c_str(), F_OK) == 0;
    zumod::peer::synced.push_back(std::string(S_ISDIR(status.st_mode) ? "directory" : "file") +
                                  (in_place ? ", in place" : ", not in place"));
    if (zumod::peer::sync_error != 0) {
        errno = zumod::peer::sync_error;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fsync, descriptor));
}
