#include "src/module/log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "src/module/attach_runtime.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/process/captured_stdout.h"
#include "tests/support/watch/call_watch.h"

namespace zumod {
namespace {

using testing::CallWatch;
using testing::CapturedStdout;
using testing::LogLine;
using testing::RecordingHost;
using Lines = std::vector<LogLine>;

class Log : public testing::LoggingTest {};

TEST(LogWithoutAHost, PrintsTheFormattedTextWithANewline) {
    const CapturedStdout captured;
    ZuModLog(kLogFailure, "[cameraclient] type: %X/%X .", 0x1AU, 7U);
    ZuModLog(kLogEvent, "100%% %s", "next");
    EXPECT_EQ(captured.Text(), "[cameraclient] type: 1A/7 .\n100% next\n");
}

TEST(LogWithoutAHost, TruncatesALongTextTheSameWay) {
    const CapturedStdout captured;
    ZuModLog(kLogEvent, "%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(captured.Text(), std::string(4095, 'x') + "\n");
}

TEST_F(Log, FormatsAndPassesTheLevelOnUnchanged) {
    ZuModLog(kLogEvent, "[camera_client] %s %d %lu", "text", -3, 18446744073709551615UL);
    ZuModLog(kLogIgnored, "ignored");
    ZuModLog(kLogFailure, "failure");
    ZuModLog(kLogTrace, "trace");
    ZuModLog(0, "none");
    ZuModLog(0xFFFFFFFF, "all");
    EXPECT_EQ(host.Lines(), (Lines{{1, "[camera_client] text -3 18446744073709551615"},
                                   {2, "ignored"},
                                   {4, "failure"},
                                   {8, "trace"},
                                   {0, "none"},
                                   {0xFFFFFFFF, "all"}}));
}

TEST_F(Log, DeliversATextOf4095CharactersWhole) {
    const std::string text(4095, 'a');
    ZuModLog(kLogEvent, "%s", text.c_str());
    EXPECT_EQ(host.Lines(), (Lines{{1, text}}));
}

TEST_F(Log, TruncatesALongerTextTo4095Characters) {
    ZuModLog(kLogEvent, "%s", (std::string(4095, 'a') + "b").c_str());
    ZuModLog(kLogEvent, "%s%s", std::string(4000, 'c').c_str(), std::string(4000, 'd').c_str());
    EXPECT_EQ(host.Lines(),
              (Lines{{1, std::string(4095, 'a')}, {1, std::string(4000, 'c') + std::string(95, 'd')}}));
}

TEST_F(Log, PassesABufferOf4096BytesThatIsZeroAfterTheText) {
    {
        // A block of the same size with other content, freed just before.
        std::vector<char> dirt(4096, 'D');
    }
    int64_t zeros = 0;
    host.OnLine([&](uint32_t, const char* text) { zeros = std::count(text, text + 4096, '\0'); });
    ZuModLog(kLogEvent, "0123456789");
    EXPECT_EQ(zeros, 4086);
}

TEST_F(Log, AllocatesOneBufferOf4096BytesAndFreesIt) {
    const char* buffer = nullptr;
    host.OnLine([&](uint32_t, const char* text) { buffer = text; });
    const CallWatch watch;
    ZuModLog(kLogEvent, "x");
    EXPECT_EQ(watch.Count(CallWatch::calloc, 4096), 1);
    EXPECT_EQ(watch.FreesOf(buffer), 1);
}

TEST_F(Log, PropagatesASinksExceptionAfterFreeingTheBuffer) {
    const char* buffer = nullptr;
    host.OnLine([&](uint32_t, const char* text) {
        buffer = text;
        throw std::runtime_error("sink");
    });
    const CallWatch watch;
    EXPECT_THROW(ZuModLog(kLogEvent, "x"), std::runtime_error);
    EXPECT_EQ(watch.FreesOf(buffer), 1);
}

TEST_F(Log, AnotherThreadCanLogAfterASinkThrew) {
    RecordingHost throwing;
    throwing.OnLine([](uint32_t, const char*) { throw std::runtime_error("sink"); });
    AttachRuntime(&throwing);
    EXPECT_THROW(ZuModLog(kLogEvent, "x"), std::runtime_error);
    std::thread([&] {
        AttachRuntime(&host);
        ZuModLog(kLogEvent, "as if nothing had been");
    }).join();
    EXPECT_EQ(host.Lines(), (Lines{{1, "as if nothing had been"}}));
}

TEST_F(Log, ASinkMayLogAgainFromInside) {
    int depth = 0;
    host.OnLine([&](uint32_t level, const char* text) {
        const std::string before = text;
        if (depth < 3) {
            ++depth;
            ZuModLog(level, "%s.", text);
            --depth;
        }
        EXPECT_EQ(text, before) << "the inner call has changed the outer call's buffer";
    });
    ZuModLog(kLogEvent, "echo");
    EXPECT_EQ(host.Lines(), (Lines{{1, "echo"}, {1, "echo."}, {1, "echo.."}, {1, "echo..."}}));
}

TEST_F(Log, WithoutMemoryDropsTheLine) {
    CallWatch watch;
    watch.Fail(CallWatch::calloc, 4096, 1);
    ZuModLog(kLogEvent, "dropped");
    ZuModLog(kLogEvent, "kept");
    EXPECT_EQ(host.Lines(), (Lines{{1, "kept"}}));
}

TEST_F(Log, LinesOfSeveralThreadsArriveWhole) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            for (int line = 0; line < 500; ++line) {
                ZuModLog(kLogEvent, "%s", std::string(50, static_cast<char>('a' + i)).c_str());
            }
        });
    }
    for (std::thread& each : threads) {
        each.join();
    }
    size_t of_each[4] = {};
    for (const LogLine& line : host.Lines()) {
        ASSERT_EQ(line.text, std::string(50, line.text[0]));
        ++of_each[line.text[0] - 'a'];
    }
    EXPECT_EQ(std::vector<size_t>(of_each, of_each + 4), std::vector<size_t>(4, 500));
}

}  // namespace
}  // namespace zumod
