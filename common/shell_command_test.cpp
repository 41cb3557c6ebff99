#include "common/shell_command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <csignal>

#include "common/unique_fd.h"

namespace zumod {
namespace {

// Its wait status.
int StatusOf(const ShellCommand& command) {
    const auto child = StartShellCommand(command);
    EXPECT_TRUE(child);
    int status = -1;
    EXPECT_EQ(waitpid(child.value_or(-1), &status, 0), child.value_or(-1));
    return status;
}

// What it writes on standard output.
std::string OutputOf(ShellCommand command) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    command.output = writer.Get();
    EXPECT_EQ(CommandFailure(StatusOf(command)), "");
    writer.Reset();
    std::array<char, 4096> text{};
    const ssize_t count = read(reader.Get(), text.data(), text.size());
    return {text.data(), static_cast<size_t>(std::max<ssize_t>(count, 0))};
}

TEST(ShellCommand, ReadsAndWritesWhatItIsGiven) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    ASSERT_EQ(write(writer.Get(), "to the command", 14), 14);
    writer.Reset();
    ShellCommand command{"cat; echo .$0"};
    command.input = reader.Get();
    EXPECT_EQ(OutputOf(command), "to the command.sh\n");
}

TEST(ShellCommand, HasTheGivenVariables) {
    char variable[] = "ONE=1 and 2";
    char* const variables[] = {variable, nullptr};
    ShellCommand command{"echo \"$ONE,$HOME\""};
    command.environment = variables;
    EXPECT_EQ(OutputOf(command), "1 and 2,\n");
}

TEST(ShellCommand, StartsWithTheUsualSignals) {
    sigset_t before;
    sigset_t blocked;
    sigfillset(&blocked);
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    const auto action = std::signal(SIGPIPE, SIG_IGN);
    const std::string status = OutputOf({"exec cat /proc/self/status"});
    std::signal(SIGPIPE, action);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    const auto signals = [&](const std::string& name) {
        return std::stoull(status.substr(status.find(name) + name.size()), nullptr, 16);
    };
    EXPECT_EQ(signals("SigBlk:"), 0U);
    EXPECT_EQ(signals("SigIgn:") >> (SIGPIPE - 1) & 1, 0U);
}

TEST(ShellCommand, HasAProcessGroupIfItIsAskedFor) {
    constexpr char kIsLeader[] =
        "read -r pid name state parent group rest </proc/$$/stat; test $pid = $group";
    ShellCommand command{kIsLeader};
    EXPECT_EQ(CommandFailure(StatusOf(command)), "the command ended with status 1");
    command.has_own_group = true;
    EXPECT_EQ(CommandFailure(StatusOf(command)), "");
}

TEST(ShellCommand, ItsFailureNamesTheStatusOrTheSignal) {
    EXPECT_EQ(CommandFailure(StatusOf({"exit 0"})), "");
    EXPECT_EQ(CommandFailure(StatusOf({"exit 3"})), "the command ended with status 3");
    EXPECT_EQ(CommandFailure(StatusOf({"kill -TERM $$"})), "the command was ended by signal 15");
}

}  // namespace
}  // namespace zumod
