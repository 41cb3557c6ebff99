#include "host/host_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "tests/support/process/scoped_environment.h"

namespace zumod::host {
namespace {

using zumod::testing::ScopedTimeZone;
using zumod::testing::ScopedVariable;

constexpr auto kLimit = std::chrono::seconds(30);

// A pipe; the log writes to its write end.
struct Pipe {
    Pipe() {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        read_end.Reset(ends[0]);
        write_end.Reset(ends[1]);
    }
    std::string Read() const {
        std::string bytes(1 << 20, 0);
        const ssize_t count = read(read_end.Get(), bytes.data(), bytes.size());
        bytes.resize(static_cast<size_t>(count));
        return bytes;
    }
    UniqueFd read_end;
    UniqueFd write_end;
};

TEST(HostLog, ALineHasTimeLevelAndText) {
    const ScopedTimeZone zone("UTC0");
    const timeval time{1588748949, 7999};
    EXPECT_EQ(FormatLogLine(time, 1, "[x] text", false), "2020-05-06 07:09:09.007 info    [x] text\n");
    EXPECT_EQ(FormatLogLine(time, 2, "", false), "2020-05-06 07:09:09.007 warning \n");
    EXPECT_EQ(FormatLogLine(time, 4, "a", false), "2020-05-06 07:09:09.007 error   a\n");
    EXPECT_EQ(FormatLogLine(time, 8, "a", false), "2020-05-06 07:09:09.007 trace   a\n");
    EXPECT_EQ(FormatLogLine(time, 16, "a", false), "2020-05-06 07:09:09.007 16      a\n");
}

TEST(HostLog, EveryLevelButInfoHasAColour) {
    const ScopedTimeZone zone("UTC0");
    EXPECT_EQ(FormatLogLine({0, 0}, 4, "a", true), "\033[31m1970-01-01 00:00:00.000 error   a\033[0m\n");
    EXPECT_EQ(FormatLogLine({0, 0}, 2, "a", true), "\033[33m1970-01-01 00:00:00.000 warning a\033[0m\n");
    EXPECT_EQ(FormatLogLine({0, 0}, 8, "a", true), "\033[2m1970-01-01 00:00:00.000 trace   a\033[0m\n");
    EXPECT_EQ(FormatLogLine({0, 0}, 1, "a", true), "1970-01-01 00:00:00.000 info    a\n");
}

TEST(HostLog, NormalLinesOfTheModuleAreEvents) {
    EXPECT_EQ(ShownLevel(2, "[LinuxV4L2CameraCapture] current size 640x480 fmt 1, requresize"), 1U);
    EXPECT_EQ(ShownLevel(2, "[CameraEnumerator] invalid device, dev index 1, device /dev/video1"), 1U);
    EXPECT_EQ(ShownLevel(2, "[CameraEnumerator] dev index 1, query cap fail, /dev/video1"), 2U);
    EXPECT_EQ(ShownLevel(4, "[LinuxV4L2CameraCapture] current size 1x1"), 4U);
    EXPECT_EQ(ShownLevel(8, "[LinuxV4L2CameraCapture] current size 1x1"), 8U);
    EXPECT_EQ(ShownLevel(2, ""), 2U);
}

TEST(HostLog, ADeviceNameCannotForgeALineOrControlTheTerminal) {
    const ScopedTimeZone zone("UTC0");
    EXPECT_EQ(FormatLogLine({0, 0}, 1, "name \033[2J\nforged\tr\xC3\xA9sum\xC3\xA9\x7F", false),
              "1970-01-01 00:00:00.000 info    name \\x1b[2J\\x0aforged\\x09r\xC3\xA9sum\xC3\xA9\\x7f\n");
    // A control character of two bytes, and the mark that reverses the writing direction.
    EXPECT_EQ(FormatLogLine({0, 0}, 1, "a\xC2\x9B \xE2\x80\xAE z", false),
              "1970-01-01 00:00:00.000 info    a\\u009b \\u202e z\n");
}

TEST(HostLog, ATerminalGetsColoursUnlessNoColorHasAValue) {
    const UniqueFd terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(terminal);
    const Pipe pipe;
    {
        const ScopedVariable empty("NO_COLOR", "");
        EXPECT_TRUE(WantsColour(terminal.Get()));
        EXPECT_FALSE(WantsColour(pipe.write_end.Get()));
    }
    const ScopedVariable set("NO_COLOR", "1");
    EXPECT_FALSE(WantsColour(terminal.Get()));
}

TEST(HostLog, OnlyTheChosenLevelsAreShown) {
    const Pipe pipe;
    HostLog log(pipe.write_end.Get(), 4 | 2);
    ASSERT_TRUE(log.Start());
    log.Write(1, "event");
    log.Write(8, "trace");
    log.Write(2, "ignored");
    log.Write(4, "failure");
    ASSERT_TRUE(log.Flush(kLimit));
    const std::string lines = pipe.Read();
    EXPECT_EQ(lines.find("event"), std::string::npos);
    EXPECT_EQ(lines.find("trace"), std::string::npos);
    EXPECT_NE(lines.find("warning ignored\n"), std::string::npos);
    EXPECT_NE(lines.find("error   failure\n"), std::string::npos);
}

struct Lines {
    uint64_t written = 0;
    uint64_t lost = 0;  // as the lines say
};

Lines CountLines(const std::string& text) {
    Lines count;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        const size_t at = line.find(" lines were lost");
        if (at == std::string::npos) {
            ++count.written;
        } else {
            count.lost += std::stoull(line.substr(line.rfind(' ', at - 1)));
        }
    }
    return count;
}

TEST(HostLog, LinesAreDroppedAndCountedWhileTheReaderIsStuck) {
    const Pipe pipe;
    HostLog log(pipe.write_end.Get(), 15);
    ASSERT_TRUE(log.Start());
    const std::string text(1000, 'x');
    for (int line = 0; line < 1000; ++line) {
        log.Write(1, text);
    }
    EXPECT_FALSE(log.Flush(std::chrono::milliseconds(0)));
    std::string read;
    Lines count;
    do {
        const std::string more = pipe.Read();
        ASSERT_NE(more, "");
        read += more;
        count = CountLines(read);
    } while (read.back() != '\n' || count.written + count.lost < 1000);
    EXPECT_EQ(count.written + count.lost, 1000U);
    EXPECT_LT(count.written, 300U);
    ASSERT_TRUE(log.Flush(kLimit));
    log.Write(1, "after");
    ASSERT_TRUE(log.Flush(kLimit));
    const std::string after = pipe.Read();
    EXPECT_NE(after.find("info    after\n"), std::string::npos);
    EXPECT_EQ(CountLines(after).lost, 0U);
}

// A terminal that says it is ready may still take less than one line.
TEST(HostLog, ATerminalThatNobodyReadsBlocksNoCaller) {
    const UniqueFd terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(terminal);
    ASSERT_EQ(grantpt(terminal.Get()), 0);
    ASSERT_EQ(unlockpt(terminal.Get()), 0);
    char name[64];
    ASSERT_EQ(ptsname_r(terminal.Get(), name, sizeof name), 0);
    const UniqueFd screen(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(screen);
    HostLog log(screen.Get(), 15);
    ASSERT_TRUE(log.Start());
    for (int line = 0; line < 1000; ++line) {
        log.Write(1, std::string(1000, 'x'));
    }
    EXPECT_FALSE(log.Flush(std::chrono::milliseconds(0)));
}

TEST(HostLog, LinesBeforeTheStartAreWritten) {
    const Pipe pipe;
    HostLog log(pipe.write_end.Get(), 15);
    log.Write(4, "early");
    log.Print("program: a\x1b[2J");
    ASSERT_TRUE(log.Flush(kLimit));
    const std::string lines = pipe.Read();
    EXPECT_NE(lines.find("error   early\nprogram: a\\x1b[2J\n"), std::string::npos) << lines;
}

TEST(HostLog, ALineThatIsRepeatedIsWrittenOnceAndItsCountAtTheEnd) {
    const Pipe pipe;
    HostLog log(pipe.write_end.Get(), 15);
    log.LimitSources();
    for (int i = 0; i < 4; ++i) {
        log.Write(2, "[a] one");
    }
    ASSERT_TRUE(log.Flush(kLimit));
    const std::string lines = pipe.Read();
    EXPECT_EQ(std::ranges::count(lines, '\n'), 2);
    EXPECT_NE(lines.find("warning [a] one\n"), std::string::npos) << lines;
    EXPECT_NE(lines.find("info    [a]: the last line was repeated 3 times\n"), std::string::npos) << lines;
}

TEST(HostLog, AClosedReaderIsNotWaitedFor) {
    std::signal(SIGPIPE, SIG_IGN);
    Pipe pipe;
    pipe.read_end.Reset();
    HostLog log(pipe.write_end.Get(), 15);
    log.Write(4, "text");
    EXPECT_TRUE(log.Flush(kLimit));
    std::signal(SIGPIPE, SIG_DFL);
}

}  // namespace
}  // namespace zumod::host
