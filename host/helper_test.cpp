#include "host/helper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "tests/support/process/file_content.h"
#include "tests/support/process/work_directory.h"
#include "tests/support/watch/wait_until.h"

namespace zumod::host {
namespace {

using zumod::testing::FileContent;
using zumod::testing::WaitUntil;
using zumod::testing::WorkDirectory;

std::unique_ptr<HelperProcess> StartHelper(const HelperCommands& commands) {
    auto started = HelperProcess::Start(commands);
    EXPECT_TRUE(started);
    return std::move(*started);
}

HelperCommands Asking(const std::string& command) {
    HelperCommands commands;
    commands.ask = command;
    return commands;
}

// Waits for the next reply.
Expected<HelperReply> NextReply(const HelperProcess& helper) {
    Expected<HelperReply> next = Fail("no reply");
    WaitUntil([&] {
        const auto reply = helper.Receive();
        if (!reply) {
            next = Fail(reply.error());
        } else if (*reply) {
            next = **reply;
        }
        return !reply || reply->has_value();
    });
    return next;
}

TEST(HelperProcess, WithoutACommandThereIsNone) {
    EXPECT_EQ(StartHelper({}), nullptr);
}

TEST(HelperProcess, TheAnswerIsTheExitStatusOfTheCommand) {
    const auto helper = StartHelper(Asking("exit $ZU_CAMERA_ID"));
    CameraUse use;
    ASSERT_TRUE(helper->Ask(7, use));
    auto reply = NextReply(*helper);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->number, 7U);
    EXPECT_EQ(reply->result, HelperResult::kAllowed);
    use.camera = 3;
    ASSERT_TRUE(helper->Ask(8, use));
    reply = NextReply(*helper);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->number, 8U);
    EXPECT_EQ(reply->result, HelperResult::kRefused);
    EXPECT_STREQ(reply->text, "--ask: the command ended with status 3");
}

TEST(HelperProcess, ACommandKnowsWhoUsesWhichCamera) {
    const WorkDirectory work;
    HelperCommands commands;
    const std::string print =
        "printf '%s\n' \"$ZU_CAMERA_EVENT|$ZU_CAMERA_ID|$ZU_CAMERA_NAME|$ZU_CAMERA_FILE|$ZU_CAMERA_WIDTH|"
        "$ZU_CAMERA_HEIGHT|$ZU_CAMERA_FPS|$ZU_CAMERA_PEER|$ZU_CAMERA_PEER_PID|$ZU_CAMERA_PEER_UID|"
        "$ZU_CAMERA_PEER_COMMAND\" >";
    commands.on_open = print + (work / "open");
    commands.on_close = print + (work / "close");
    const auto helper = StartHelper(commands);
    const CameraUse use{5, 0, 1000, 2, 640, 480, 30, "Desk\x1b'$(reboot)", "/dev/video4"};
    ASSERT_TRUE(helper->OnOpen(use));
    ASSERT_TRUE(helper->OnClose(use));
    // Nothing is said of a process that is not known.
    const std::string rest = "|2|Desk\\x1b'$(reboot)|/dev/video4|640|480|30|5|||\n";
    EXPECT_TRUE(WaitUntil([&] { return FileContent(work / "open") == "open" + rest; }))
        << FileContent(work / "open");
    EXPECT_TRUE(WaitUntil([&] { return FileContent(work / "close") == "close" + rest; }))
        << FileContent(work / "close");
}

TEST(HelperProcess, ACommandKnowsTheUserAndTheCommandOfAProcess) {
    const WorkDirectory work;
    HelperCommands commands;
    commands.on_open =
        "echo \"$ZU_CAMERA_PEER_PID $ZU_CAMERA_PEER_UID $ZU_CAMERA_PEER_COMMAND\" >" + (work / "open");
    const auto helper = StartHelper(commands);
    CameraUse use;
    use.pid = getpid();
    use.user = 1234;
    ASSERT_TRUE(helper->OnOpen(use));
    const std::string expected = std::to_string(getpid()) + " 1234 " + CommandOf(getpid()) + "\n";
    EXPECT_TRUE(WaitUntil([&] { return FileContent(work / "open") == expected; }))
        << FileContent(work / "open");
}

TEST(HelperProcess, ACommandThatTakesTooLongIsKilledAndRefuses) {
    HelperCommands commands = Asking("sleep 1000");
    commands.ask_limit = std::chrono::milliseconds(10);
    const auto helper = StartHelper(commands);
    ASSERT_TRUE(helper->Ask(1, {}));
    const auto reply = NextReply(*helper);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result, HelperResult::kRefused);
    EXPECT_STREQ(reply->text, "--ask: the command took too long");
}

TEST(HelperProcess, ACommandThatCannotRunIsNotARefusal) {
    struct Case {
        std::string command;
        std::string text;
    };
    for (const Case& each :
         {Case{"/nonexistent/command 2>/dev/null", "--ask: the command was not found (status 127)"},
          Case{"/dev/null 2>/dev/null", "--ask: the command cannot be executed (status 126)"},
          Case{std::string(200'000, 'x'), "--ask: the command cannot be started: Argument list too long"}}) {
        const auto helper = StartHelper(Asking(each.command));
        ASSERT_TRUE(helper->Ask(1, {}));
        const auto reply = NextReply(*helper);
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->result, HelperResult::kNotAsked);
        EXPECT_EQ(reply->text, each.text);
    }
}

// A process that another one traces stays until that one has waited for it, also after it was killed.
class HelperOfATracedCommand : public ::testing::Test {
protected:
    // Traces the command that writes its number to `file`. Returns whether that is permitted.
    bool Trace(const std::string& file) {
        EXPECT_TRUE(WaitUntil([&] { return FileContent(file).ends_with("\n"); }));
        traced = std::stoi(FileContent(file));
        return ptrace(PTRACE_SEIZE, traced, nullptr, nullptr) == 0;
    }
    ~HelperOfATracedCommand() override {
        if (traced > 0) {
            (void)waitpid(traced, nullptr, __WALL);  // ends the tracing
        }
    }
    pid_t traced = 0;
    const WorkDirectory work;
};

constexpr char kNoTracing[] = "this system does not permit a test to trace its process";

TEST_F(HelperOfATracedCommand, AQuestionThatCannotBeKilledIsReported) {
    HelperCommands commands =
        Asking("test $ZU_CAMERA_ID = 1 || { echo $$ >" + (work / "pid") + "; sleep 1000; }");
    commands.kill_limit = std::chrono::milliseconds(10);
    const auto helper = StartHelper(commands);
    ASSERT_TRUE(helper->Ask(1, {}));
    if (!Trace(work / "pid")) {
        kill(std::exchange(traced, 0), SIGKILL);
        GTEST_SKIP() << kNoTracing;
    }
    ASSERT_TRUE(helper->Cancel(1));
    auto reply = NextReply(*helper);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result, HelperResult::kRefused);
    EXPECT_STREQ(reply->text, "--ask: the command took too long and cannot be killed");
    CameraUse use;
    use.camera = 1;
    ASSERT_TRUE(helper->Ask(2, use));
    reply = NextReply(*helper);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->number, 2U);
    EXPECT_EQ(reply->result, HelperResult::kAllowed);
}

TEST_F(HelperOfATracedCommand, TheNextHookRunsAfterOneThatCannotBeKilled) {
    HelperCommands commands;
    commands.on_open = "echo $$ >" + (work / "pid") + "; sleep 1000";
    commands.on_close = "echo close >" + (work / "close");
    commands.kill_limit = std::chrono::milliseconds(10);
    std::unique_ptr<HelperProcess> helper;
    // On a slow machine the hook may be over before it is traced.
    for (commands.hook_limit = std::chrono::seconds(1); traced == 0; commands.hook_limit *= 4) {
        ASSERT_LT(commands.hook_limit, std::chrono::seconds(100));
        std::filesystem::remove(work / "pid");
        helper = StartHelper(commands);
        ASSERT_TRUE(helper->OnOpen({}));
        if (!Trace(work / "pid")) {
            const bool is_over = errno == ESRCH;
            kill(std::exchange(traced, 0), SIGKILL);
            if (!is_over) {
                GTEST_SKIP() << kNoTracing;
            }
        }
    }
    ASSERT_TRUE(helper->OnClose({}));
    const auto reply = NextReply(*helper);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result, HelperResult::kSaid);
    EXPECT_STREQ(reply->text, "--on-open: the command took too long and cannot be killed");
    EXPECT_TRUE(WaitUntil([&] { return FileContent(work / "close") == "close\n"; }));
}

TEST(HelperProcess, AtMost16QuestionsAreOpenAtOnceAndHooksRunBesideThem) {
    const WorkDirectory work;
    HelperCommands commands = Asking("sleep 1000");
    commands.on_open = "echo open >" + (work / "hook");
    const auto helper = StartHelper(commands);
    for (uint64_t number = 1; number <= 17; ++number) {
        ASSERT_TRUE(helper->Ask(number, {}));
    }
    const auto reply = NextReply(*helper);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->number, 17U);
    EXPECT_EQ(reply->result, HelperResult::kNotAsked);
    EXPECT_STREQ(reply->text, "--ask: 16 questions are open already");
    ASSERT_TRUE(helper->OnOpen({}));
    EXPECT_TRUE(WaitUntil([&] { return FileContent(work / "hook") == "open\n"; }));
}

TEST(HelperProcess, AQuestionThatIsCancelledIsKilledAndLeavesItsPlace) {
    const auto helper = StartHelper(Asking("test $ZU_CAMERA_ID = 1 || sleep 1000"));
    for (uint64_t number = 1; number <= 16; ++number) {
        ASSERT_TRUE(helper->Ask(number, {}));
    }
    ASSERT_TRUE(helper->Cancel(3));
    auto reply = NextReply(*helper);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->number, 3U);
    EXPECT_EQ(reply->result, HelperResult::kRefused);
    CameraUse use;
    use.camera = 1;
    ASSERT_TRUE(helper->Ask(17, use));
    reply = NextReply(*helper);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->number, 17U);
    EXPECT_EQ(reply->result, HelperResult::kAllowed);
}

// The first hook waits for the test, so the others are there before it ends.
TEST(HelperProcess, HooksRunInOrderAlsoAfterTheEndOfTheHost) {
    const WorkDirectory work;
    const std::string file = work / "pipe";
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    HelperCommands commands;
    const std::string print = "echo $ZU_CAMERA_EVENT $ZU_CAMERA_ID >>" + (work / "hooks");
    commands.on_open = "test $ZU_CAMERA_ID = 1 && read line <" + file + "; " + print;
    commands.on_close = print;
    auto helper = StartHelper(commands);
    CameraUse use;
    for (use.camera = 1; use.camera <= 3; ++use.camera) {
        ASSERT_TRUE(helper->OnOpen(use));
        ASSERT_TRUE(helper->OnClose(use));
    }
    const UniqueFd pipe(open(file.c_str(), O_WRONLY | O_CLOEXEC));  // waits for the first hook
    ASSERT_TRUE(pipe);
    helper = nullptr;
    EXPECT_EQ(write(pipe.Get(), "\n", 1), 1);
    const std::string expected = "open 1\nclose 1\nopen 2\nclose 2\nopen 3\nclose 3\n";
    EXPECT_TRUE(WaitUntil([&] { return FileContent(work / "hooks") == expected; }))
        << FileContent(work / "hooks");
}

TEST(HelperProcess, AtMost256HooksWait) {
    const WorkDirectory work;
    HelperCommands commands;
    commands.on_open = "while test -e " + (work / "") + "; do sleep 0.1; done";
    const auto helper = StartHelper(commands);
    // One runs. The records of the others may not all fit into the socket at once.
    for (int sent = 0; sent < 258;) {
        sent += helper->OnOpen({}) ? 1 : 0;
    }
    const auto reply = NextReply(*helper);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result, HelperResult::kSaid);
    EXPECT_STREQ(reply->text, "--on-open: left out: 256 commands wait already");
}

// A peer that opens and closes a camera again and again must not fill the queue.
TEST(HelperProcess, CamerasThatAreClosedWhileManyHooksWaitAreLeftOutOfBoth) {
    const WorkDirectory work;
    const std::string go = work / "go";
    HelperCommands commands;
    const std::string print = "until test -e " + go +
                              "; do sleep 0.05; done; echo $ZU_CAMERA_EVENT $ZU_CAMERA_PEER >>" +
                              (work / "hooks");
    commands.on_open = commands.on_close = print;
    const auto helper = StartHelper(commands);
    const auto send = [](auto action) { EXPECT_TRUE(WaitUntil(action)); };
    CameraUse use;
    // One runs and 32 wait.
    for (use.peer = 1; use.peer <= 33; ++use.peer) {
        send([&] { return helper->OnOpen(use); });
    }
    for (int i = 0; i < 300; ++i) {
        use.peer = 100;
        send([&] { return helper->OnOpen(use); });
        send([&] { return helper->OnClose(use); });
        const auto reply = NextReply(*helper);
        ASSERT_TRUE(reply);
        ASSERT_STREQ(reply->text,
                     "--on-close: left out: a camera was opened and closed while 32 commands waited");
    }
    use.peer = 2;  // another camera than the one of its open that waits
    use.camera = 1;
    send([&] { return helper->OnClose(use); });
    std::ofstream(go) << "now";
    std::string expected;
    for (int peer = 1; peer <= 33; ++peer) {
        expected += "open " + std::to_string(peer) + "\n";
    }
    expected += "close 2\n";
    EXPECT_TRUE(WaitUntil([&] { return FileContent(work / "hooks") == expected; }))
        << FileContent(work / "hooks");
}

TEST(HelperProcess, AfterTheEndOfTheHostAllHooksTogetherHaveTheTimeOfOne) {
    HelperCommands commands;
    commands.on_open = commands.on_close = "echo $ZU_CAMERA_EVENT; sleep 1000";
    commands.hook_limit = std::chrono::milliseconds(500);
    // The helper and its commands write to this pipe, so its end is theirs.
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const UniqueFd output(ends[0]);
    const UniqueFd standard_error(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    auto helper = StartHelper(commands);
    dup2(standard_error.Get(), STDERR_FILENO);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(helper->OnOpen({}));
        ASSERT_TRUE(helper->OnClose({}));
    }
    helper = nullptr;
    std::string text;
    char byte = 0;
    while (read(output.Get(), &byte, 1) == 1) {
        text += byte;
    }
    // The second one has the rest of the time, if there is any. A slow machine may start none in time.
    EXPECT_TRUE(std::string("open\nclose\n").starts_with(text)) << text;
}

TEST(HelperProcess, TheInputOfACommandIsEmpty) {
    const auto helper = StartHelper(Asking("test /proc/self/fd/0 -ef /dev/null && ! read line"));
    ASSERT_TRUE(helper->Ask(1, {}));
    const auto reply = NextReply(*helper);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result, HelperResult::kAllowed) << reply->text;
}

// A program inherits which signals are ignored.
TEST(HelperProcess, ItKnowsTheExitStatusIfSigchldWasIgnored) {
    const auto before = signal(SIGCHLD, SIG_IGN);
    const auto helper = StartHelper(Asking("exit 3"));
    (void)signal(SIGCHLD, before);
    ASSERT_TRUE(helper->Ask(1, {}));
    const auto reply = NextReply(*helper);
    ASSERT_TRUE(reply);
    EXPECT_STREQ(reply->text, "--ask: the command ended with status 3");
}

TEST(HelperProcess, OnlyAHookThatFailsIsReported) {
    HelperCommands commands;
    commands.on_open = "true";
    commands.on_close = "kill -TERM $$";
    const auto helper = StartHelper(commands);
    ASSERT_TRUE(helper->OnOpen({}));
    ASSERT_TRUE(helper->OnClose({}));
    const auto reply = NextReply(*helper);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result, HelperResult::kSaid);
    EXPECT_STREQ(reply->text, "--on-close: the command was ended by signal 15");
}

TEST(HelperProcess, ItsEndIsNoticed) {
    const auto helper = StartHelper(Asking("kill -KILL $PPID"));
    ASSERT_TRUE(helper->Ask(1, {}));
    const auto reply = NextReply(*helper);
    ASSERT_FALSE(reply);
    EXPECT_EQ(reply.error().text, "the helper process is gone");
    EXPECT_FALSE(helper->Ask(2, {}));
}

TEST(HelperProcess, AQuestionEndsWithTheHost) {
    const WorkDirectory work;
    // The shell keeps the file open, and "sleep" with it.
    const std::string file = work / "pipe";
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    auto helper = StartHelper(Asking("exec 3>" + file + "; sleep 1000"));
    ASSERT_TRUE(helper->Ask(1, {}));
    const UniqueFd pipe(open(file.c_str(), O_RDONLY | O_CLOEXEC));  // waits for the shell
    ASSERT_TRUE(pipe);
    helper = nullptr;
    char byte = 0;
    EXPECT_EQ(read(pipe.Get(), &byte, 1), 0);  // the end, once the last writer is gone
}

TEST(HelperProcess, ItSaysWhatTheProcessOfAPeerIs) {
    HelperCommands commands;
    commands.describes_peers = true;
    const auto helper = StartHelper(commands);
    ASSERT_NE(helper, nullptr);
    ASSERT_TRUE(helper->Describe(7, getpid()));
    auto reply = NextReply(*helper);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->number, 7U);
    EXPECT_EQ(reply->result, HelperResult::kDescribed);
    EXPECT_EQ(reply->text, CommandOf(getpid()));
    ASSERT_TRUE(helper->Describe(8, 0));
    reply = NextReply(*helper);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->number, 8U);
    EXPECT_STREQ(reply->text, "");
}

TEST(CommandOf, IsTheCommandLineOfAProcess) {
    EXPECT_NE(CommandOf(getpid()).find("host_test"), std::string::npos);
    EXPECT_EQ(CommandOf(0), "");
    EXPECT_EQ(CommandOf(-1), "");
}

}  // namespace
}  // namespace zumod::host
