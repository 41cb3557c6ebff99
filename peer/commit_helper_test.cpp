#include "peer/commit_helper.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tests/support/process/file_content.h"
#include "tests/support/process/work_directory.h"
#include "tests/support/watch/wait_until.h"

namespace zumod::peer {
namespace {

class CommitHelperTest : public ::testing::Test {
protected:
    void Put(const std::string& text) const { std::ofstream(path) << text; }

    const testing::WorkDirectory work;
    const std::string path = work / "done";
    const std::function<void()> give_up = [this] { Put("given up"); };
};

TEST_F(CommitHelperTest, CommitsInAnotherProcess) {
    auto helper = CommitHelper::Start(
        [this] {
            Put(std::to_string(getppid()));
            return Expected<void>();
        },
        give_up);
    ASSERT_TRUE(helper);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_TRUE(helper->Commit());
    EXPECT_EQ(testing::FileContent(path), std::to_string(getpid()));
}

TEST_F(CommitHelperTest, ReturnsTheFailure) {
    auto helper = CommitHelper::Start([]() -> Expected<void> { return Fail("the disk is full"); }, give_up);
    ASSERT_TRUE(helper);
    const auto result = helper->Commit();
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().text, "the disk is full");
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(CommitHelperTest, GivesUpBeforeTheProgramGoesOn) {
    {
        const auto helper = CommitHelper::Start([] { return Expected<void>(); }, give_up);
    }
    EXPECT_EQ(testing::FileContent(path), "given up");
}

TEST_F(CommitHelperTest, GivesUpWhenTheProgramIsKilled) {
    const pid_t program = fork();
    if (program == 0) {
        const auto helper = CommitHelper::Start([] { return Expected<void>(); }, give_up);
        kill(getpid(), SIGKILL);
    }
    EXPECT_EQ(waitpid(program, nullptr, 0), program);
    EXPECT_TRUE(testing::WaitUntil([this] { return testing::FileContent(path) == "given up"; }));
}

TEST_F(CommitHelperTest, ReportsAHelperThatDoesNotAnswer) {
    const std::function<Expected<void>()> throws = []() -> Expected<void> { throw std::runtime_error("x"); };
    const std::function<Expected<void>()> dies = []() -> Expected<void> {
        kill(getpid(), SIGKILL);
        return {};
    };
    for (const auto& commit : {throws, dies}) {
        auto helper = CommitHelper::Start(commit, give_up);
        ASSERT_TRUE(helper);
        const auto result = helper->Commit();
        ASSERT_FALSE(result);
        EXPECT_EQ(result.error().text, "the helper process that writes files has ended");
    }
}

}  // namespace
}  // namespace zumod::peer
