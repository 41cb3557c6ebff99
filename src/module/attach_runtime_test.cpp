#include "src/module/attach_runtime.h"

#include <gtest/gtest.h>

#include "src/module/log.h"
#include "src/module/runtime.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/process/captured_stdout.h"

namespace zumod {
namespace {

using testing::CapturedStdout;
using testing::LogLine;
using testing::RecordingHost;
using Lines = std::vector<LogLine>;

class AttachRuntimeTest : public ::testing::Test {
protected:
    ~AttachRuntimeTest() override { DetachRuntime(); }
};

TEST_F(AttachRuntimeTest, SendsTheLinesToTheHost) {
    RecordingHost host;
    EXPECT_EQ(AttachRuntime(&host), 1);
    const CapturedStdout captured;
    ZuModLog(kLogEvent, "to the host");
    EXPECT_EQ(host.Lines(), (Lines{{1, "to the host"}}));
    EXPECT_EQ(captured.Text(), "");
}

TEST_F(AttachRuntimeTest, RefusesANullHostAndKeepsTheSink) {
    EXPECT_EQ(AttachRuntime(nullptr), 0);
    EXPECT_EQ(CZUModRuntime::GetInstance()->GetSink(), nullptr);
    RecordingHost host;
    AttachRuntime(&host);
    EXPECT_EQ(AttachRuntime(nullptr), 0);
    ZuModLog(kLogTrace, "still here");
    EXPECT_EQ(host.Lines(), (Lines{{8, "still here"}}));
}

TEST_F(AttachRuntimeTest, AcceptsTheModulesOwnRuntimeAndKeepsTheSink) {
    EXPECT_EQ(AttachRuntime(CZUModRuntime::GetInstance()), 1);
    EXPECT_EQ(CZUModRuntime::GetInstance()->GetSink(), nullptr);
    RecordingHost host;
    AttachRuntime(&host);
    EXPECT_EQ(AttachRuntime(CZUModRuntime::GetInstance()), 1);
    ZuModLog(kLogTrace, "no loop");
    EXPECT_EQ(host.Lines(), (Lines{{8, "no loop"}}));
}

TEST_F(AttachRuntimeTest, ASecondHostReplacesTheFirst) {
    RecordingHost first;
    RecordingHost second;
    EXPECT_EQ(AttachRuntime(&first), 1);
    EXPECT_EQ(AttachRuntime(&second), 1);
    ZuModLog(kLogEvent, "for the second");
    EXPECT_EQ(first.Lines(), Lines{});
    EXPECT_EQ(second.Lines(), (Lines{{1, "for the second"}}));
}

TEST_F(AttachRuntimeTest, AfterTheDetachLinesGoToStandardOutputAndServicesReturnNothing) {
    RecordingHost host;
    AttachRuntime(&host);
    ZuModLog(kLogEvent, "attached");
    DetachRuntime();
    const CapturedStdout captured;
    ZuModLog(kLogEvent, "detached");
    EXPECT_EQ(captured.Text(), "detached\n");
    EXPECT_EQ(host.Lines(), (Lines{{1, "attached"}}));
    CZUModRuntime* runtime = CZUModRuntime::GetInstance();
    EXPECT_EQ(runtime->Service2(1, 2, 3, 4, 5), 0);
    EXPECT_EQ(runtime->Service3(1, 2, 3, 4), 0);
    EXPECT_EQ(runtime->GetEnvProperty(kEnvModulesDir), nullptr);
    EXPECT_EQ(host.AskedKeys(), std::vector<std::string>{});
}

TEST_F(AttachRuntimeTest, ADetachWithoutAnAttachAndASecondDetachDoNothing) {
    DetachRuntime();
    DetachRuntime();
    RecordingHost host;
    EXPECT_EQ(AttachRuntime(&host), 1);
    ZuModLog(kLogEvent, "as ever");
    EXPECT_EQ(host.Lines(), (Lines{{1, "as ever"}}));
}

}  // namespace
}  // namespace zumod
