// Fault injection: every request of a start, a running stream and a stop is refused with every errno of a
// list. Checked are the result, the calls, the log, what stays open or mapped, and the next start.
#include <algorithm>

#include "tests/support/doubles/capture_fixture.h"
#include "tests/support/watch/process_state.h"

namespace zumod::testing {
namespace {

struct Errno {
    int number;
    const char* name;
};
constexpr Errno kErrnos[] = {{EIO, "EIO"},       {ENODEV, "ENODEV"}, {EBUSY, "EBUSY"},
                             {EINVAL, "EINVAL"}, {ENOMEM, "ENOMEM"}, {EINTR, "EINTR"}};

void PrintTo(const Errno& error, std::ostream* out) {
    *out << error.name;
}

// Makes the call lists of the fixture usable in the tables below.
class Sequence : public CaptureTest {
public:
    using CaptureTest::OpenTheOtherFiles;
    using CaptureTest::Probe;
    using CaptureTest::Scan;
    using CaptureTest::StartCalls;
    using CaptureTest::StartCallsThrough;
    using CaptureTest::StartCallsWith;

    // The probe of a device that refuses every size, so that no try leaves fields to the next one.
    static Calls RefusedProbe() {
        return {"ENUM_FMT video0 type=1 index=0 0",     "ENUM_FMT video0 type=1 index=1 NV12 flags=2",
                "TRY_FMT video0 type=1 128x96 NV12",    "TRY_FMT video0 type=1 160x120 NV12",
                "TRY_FMT video0 type=1 176x144 NV12",   "TRY_FMT video0 type=1 320x240 NV12",
                "TRY_FMT video0 type=1 352x288 NV12",   "TRY_FMT video0 type=1 640x480 NV12",
                "TRY_FMT video0 type=1 704x576 NV12",   "TRY_FMT video0 type=1 800x600 NV12",
                "TRY_FMT video0 type=1 960x720 NV12",   "TRY_FMT video0 type=1 1024x768 NV12",
                "TRY_FMT video0 type=1 1152x864 NV12",  "TRY_FMT video0 type=1 1280x600 NV12",
                "TRY_FMT video0 type=1 1280x720 NV12",  "TRY_FMT video0 type=1 1440x900 NV12",
                "TRY_FMT video0 type=1 1440x1080 NV12", "TRY_FMT video0 type=1 1920x1080 NV12"};
    }
};

// A refused request of a start, and what the start then does.
struct Fault {
    const char* name;
    DeviceCall call;
    // Which calls are refused: the nth and the ones after it, `times` in all.
    int nth = 1;
    int times = 1;
    // Whether the start succeeds nevertheless.
    bool starts = false;
    int mappings_left = 0;
    // All calls of the start, the refused ones included.
    Calls (*calls)();
    // The start logs the usual lines up to this one, then `other_lines`, in which "%" stands for the errno.
    const char* usual_until;
    LogLines other_lines = {};
    // If the start succeeds, it then logs the usual lines from this one on; the last one ends as given.
    const char* usual_from = nullptr;
    const char* last_line_ends = "setfps 1";
};

void PrintTo(const Fault& fault, std::ostream* out) {
    *out << fault.name;
}

// A start opens 64 files in its scan and probes one of them; then it opens and probes the device once more.
const Fault kStartFaults[] = {
    {.name = "ScanOpen",
     .call = DeviceCall::kOpen,
     .calls = [] { return Calls{"open /dev/video0 O_RDONLY"} + Sequence::OpenTheOtherFiles(); },
     .usual_until = "[CameraEnumerator]",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] startCapture, camera not founded, devid 0"}}},
    {.name = "ScanEnumFmt",
     .call = DeviceCall::kEnumFmt,
     .calls =
         [] {
             return Calls{"open /dev/video0 O_RDONLY", "ENUM_FMT video0 type=1 index=0 0", "close video0"} +
                    Sequence::OpenTheOtherFiles();
         },
     .usual_until = "[CameraEnumerator]",
     .other_lines = {{2, "[CameraEnumerator] invalid device, dev index 0, device /dev/video0"},
                     {4, "[LinuxV4L2CameraCapture] startCapture, camera not founded, devid 0"}}},
    {.name = "ScanTryFmt",
     .call = DeviceCall::kTryFmt,
     .times = 16,
     .calls =
         [] {
             return Calls{"open /dev/video0 O_RDONLY"} + Sequence::RefusedProbe() + Calls{"close video0"} +
                    Sequence::OpenTheOtherFiles();
         },
     .usual_until = "[CameraEnumerator]",
     .other_lines = {{2, "[CameraEnumerator] invalid device, dev index 0, device /dev/video0"},
                     {4, "[LinuxV4L2CameraCapture] startCapture, camera not founded, devid 0"}}},
    {.name = "ScanQueryCap",
     .call = DeviceCall::kQueryCap,
     .calls = &Sequence::Scan,
     .usual_until = "[CameraEnumerator]",
     .other_lines = {{2, "[CameraEnumerator] dev index 0, query cap fail, /dev/video0"},
                     {4, "[LinuxV4L2CameraCapture] startCapture, camera not founded, devid 0"}}},
    // The scan ignores the result of close().
    {.name = "ScanClose",
     .call = DeviceCall::kClose,
     .starts = true,
     .calls = &Sequence::StartCalls,
     .usual_until = "startCapture success",
     .usual_from = "startCapture success"},
    {.name = "Open",
     .call = DeviceCall::kOpen,
     .nth = 65,
     .calls = [] { return Sequence::Scan() + Calls{"open /dev/video0 O_RDWR|O_NONBLOCK"}; },
     .usual_until = "file /dev/video0, enum capabilities",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] startCapture, open device fail, devid 0, err: %"}}},
    {.name = "EnumFmt",
     .call = DeviceCall::kEnumFmt,
     .nth = 3,
     .calls =
         [] {
             return Sequence::Scan() + Calls{"open /dev/video0 O_RDWR|O_NONBLOCK",
                                             "ENUM_FMT video0 type=1 index=0 0", "close video0"};
         },
     .usual_until = "support 640x480",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] query device capabilities fail, devid 0, err: %"}}},
    // The request after the last format, which every device refuses.
    {.name = "EnumFmtEnd",
     .call = DeviceCall::kEnumFmt,
     .nth = 4,
     .starts = true,
     .calls = &Sequence::StartCalls,
     .usual_until = "startCapture success",
     .usual_from = "startCapture success"},
    {.name = "TryFmt",
     .call = DeviceCall::kTryFmt,
     .nth = 17,
     .times = 16,
     .calls =
         [] {
             return Sequence::Scan() + Calls{"open /dev/video0 O_RDWR|O_NONBLOCK"} +
                    Sequence::RefusedProbe() + Calls{"close video0"};
         },
     .usual_until = "support 640x480",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] query device capabilities fail, devid 0, err: %"}}},
    {.name = "GetFmt",
     .call = DeviceCall::kGetFmt,
     .starts = true,
     .calls =
         [] {
             return Sequence::StartCallsWith(
                 "S_FMT video0 type=1 640x480 NV12 field=1 stride=1280 size=614400 colorspace=8",
                 {"S_FMT video0 type=1 640x480 NV12"});
         },
     .usual_until = "current size",
     .other_lines = {{2, "[LinuxV4L2CameraCapture] get capture format fail, devid 0, err: %"}},
     .usual_from = "set success"},
    {.name = "SetFmt",
     .call = DeviceCall::kSetFmt,
     .calls =
         [] {
             return Sequence::StartCallsThrough(
                        "S_FMT video0 type=1 640x480 NV12 field=1 stride=1280 size=614400 colorspace=8") +
                    Calls{"close video0"};
         },
     .usual_until = "set success",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] set capture format fail, devid 0, err: %"}}},
    {.name = "GetParm",
     .call = DeviceCall::kGetParm,
     .starts = true,
     .calls = [] { return Sequence::StartCallsWith("S_PARM video0 type=1 timeperframe=1/15", {}); },
     .usual_until = "set capture fps success",
     .other_lines = {{8, "[LinuxV4L2CameraCapture] query support change fps fail, devid 0, err: %"}},
     .usual_from = "alloc buffer pool",
     .last_line_ends = "setfps 0"},
    {.name = "SetParm",
     .call = DeviceCall::kSetParm,
     .starts = true,
     .calls = &Sequence::StartCalls,
     .usual_until = "set capture fps success",
     .other_lines = {{8, "[LinuxV4L2CameraCapture] set capture fps fail, devid 0, err: %"}},
     .usual_from = "alloc buffer pool",
     .last_line_ends = "setfps 0"},
    {.name = "ReqBufs",
     .call = DeviceCall::kReqBufs,
     .calls =
         [] {
             return Sequence::StartCallsThrough("REQBUFS video0 type=1 memory=1 count=4") +
                    Calls{"close video0"};
         },
     .usual_until = "start capture device ",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] req buf fail, devid 0, err %"},
                     {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    // Required by the contract: buffers that are already mapped stay mapped.
    {.name = "QueryBuf1",
     .call = DeviceCall::kQueryBuf,
     .calls =
         [] {
             return Sequence::StartCallsThrough("QUERYBUF video0 type=1 memory=1 index=0") +
                    Calls{"close video0"};
         },
     .usual_until = "start capture device ",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] query buf fail, devid 0, err %"},
                     {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {.name = "QueryBuf2",
     .call = DeviceCall::kQueryBuf,
     .nth = 2,
     .mappings_left = 1,
     .calls =
         [] {
             return Sequence::StartCallsThrough("QUERYBUF video0 type=1 memory=1 index=1") +
                    Calls{"close video0"};
         },
     .usual_until = "start capture device ",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] query buf fail, devid 0, err %"},
                     {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {.name = "QueryBuf3",
     .call = DeviceCall::kQueryBuf,
     .nth = 3,
     .mappings_left = 2,
     .calls =
         [] {
             return Sequence::StartCallsThrough("QUERYBUF video0 type=1 memory=1 index=2") +
                    Calls{"close video0"};
         },
     .usual_until = "start capture device ",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] query buf fail, devid 0, err %"},
                     {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {.name = "QueryBuf4",
     .call = DeviceCall::kQueryBuf,
     .nth = 4,
     .mappings_left = 3,
     .calls =
         [] {
             return Sequence::StartCallsThrough("QUERYBUF video0 type=1 memory=1 index=3") +
                    Calls{"close video0"};
         },
     .usual_until = "start capture device ",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] query buf fail, devid 0, err %"},
                     {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {.name = "Map1",
     .call = DeviceCall::kMap,
     .calls =
         [] {
             return Sequence::StartCallsThrough(
                        "mmap video0 length=4096 offset=0 PROT_READ|PROT_WRITE MAP_SHARED") +
                    Calls{"close video0"};
         },
     .usual_until = "start capture device ",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] map buf fail, devid 0, err %"},
                     {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {.name = "Map2",
     .call = DeviceCall::kMap,
     .nth = 2,
     .calls =
         [] {
             return Sequence::StartCallsThrough(
                        "mmap video0 length=4096 offset=65536 PROT_READ|PROT_WRITE MAP_SHARED") +
                    Calls{"munmap video0 buffer=0 length=4096", "close video0"};
         },
     .usual_until = "start capture device ",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] map buf fail, devid 0, err %"},
                     {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {.name = "Map3",
     .call = DeviceCall::kMap,
     .nth = 3,
     .calls =
         [] {
             return Sequence::StartCallsThrough(
                        "mmap video0 length=4096 offset=131072 PROT_READ|PROT_WRITE MAP_SHARED") +
                    Calls{"munmap video0 buffer=0 length=4096", "munmap video0 buffer=1 length=4096",
                          "close video0"};
         },
     .usual_until = "start capture device ",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] map buf fail, devid 0, err %"},
                     {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {.name = "Map4",
     .call = DeviceCall::kMap,
     .nth = 4,
     .calls =
         [] {
             return Sequence::StartCallsThrough(
                        "mmap video0 length=4096 offset=196608 PROT_READ|PROT_WRITE MAP_SHARED") +
                    Calls{"munmap video0 buffer=0 length=4096", "munmap video0 buffer=1 length=4096",
                          "munmap video0 buffer=2 length=4096", "close video0"};
         },
     .usual_until = "start capture device ",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] map buf fail, devid 0, err %"},
                     {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {.name = "QueueBuf1",
     .call = DeviceCall::kQueueBuf,
     .mappings_left = 1,
     .calls =
         [] {
             return Sequence::StartCallsThrough("QBUF video0 type=1 memory=1 index=0 length=4096") +
                    Calls{"close video0"};
         },
     .usual_until = "start capture device ",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] qbuf fail, devid 0, err %"},
                     {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {.name = "QueueBuf2",
     .call = DeviceCall::kQueueBuf,
     .nth = 2,
     .mappings_left = 2,
     .calls =
         [] {
             return Sequence::StartCallsThrough(
                        "QBUF video0 type=1 memory=1 index=1 length=4096 offset=65536") +
                    Calls{"close video0"};
         },
     .usual_until = "start capture device ",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] qbuf fail, devid 0, err %"},
                     {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {.name = "QueueBuf3",
     .call = DeviceCall::kQueueBuf,
     .nth = 3,
     .mappings_left = 3,
     .calls =
         [] {
             return Sequence::StartCallsThrough(
                        "QBUF video0 type=1 memory=1 index=2 length=4096 offset=131072") +
                    Calls{"close video0"};
         },
     .usual_until = "start capture device ",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] qbuf fail, devid 0, err %"},
                     {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {.name = "QueueBuf4",
     .call = DeviceCall::kQueueBuf,
     .nth = 4,
     .mappings_left = 4,
     .calls =
         [] {
             return Sequence::StartCallsThrough(
                        "QBUF video0 type=1 memory=1 index=3 length=4096 offset=196608") +
                    Calls{"close video0"};
         },
     .usual_until = "start capture device ",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] qbuf fail, devid 0, err %"},
                     {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {.name = "StreamOn",
     .call = DeviceCall::kStreamOn,
     .calls =
         [] {
             return Sequence::StartCallsThrough("STREAMON video0 type=1") +
                    Calls{"munmap video0 buffer=0 length=4096",
                          "munmap video0 buffer=1 length=4096",
                          "munmap video0 buffer=2 length=4096",
                          "munmap video0 buffer=3 length=4096",
                          "STREAMOFF video0 type=1",
                          "close video0"};
         },
     .usual_until = "create work thread",
     .other_lines = {{4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
};

// A refused request of a running stream whose device delivers two frames.
struct StreamFault {
    const char* name;
    DeviceCall call;
    int nth = 1;
    // "%" stands for the errno. An interrupted call (EINTR) logs nothing, except for QBUF.
    LogLines lines = {};
    size_t frames = 2;
    size_t frames_if_interrupted = 2;
};

void PrintTo(const StreamFault& fault, std::ostream* out) {
    *out << fault.name;
}

const StreamFault kStreamFaults[] = {
    {.name = "Select1",
     .call = DeviceCall::kSelect,
     .lines = {{4, "[LinuxV4L2CameraCapture] workLoop, select fail, devid 0, err: %"}},
     .frames = 0},
    {.name = "Select2",
     .call = DeviceCall::kSelect,
     .nth = 2,
     .lines = {{4, "[LinuxV4L2CameraCapture] workLoop, select fail, devid 0, err: %"}},
     .frames = 1},
    {.name = "DequeueBuf1", .call = DeviceCall::kDequeueBuf},
    {.name = "DequeueBuf2", .call = DeviceCall::kDequeueBuf, .nth = 2},
    {.name = "QueueBuf1",
     .call = DeviceCall::kQueueBuf,
     .nth = 5,
     .lines = {{2, "[LinuxV4L2CameraCapture] qbuf fail, devid 0"}}},
    {.name = "QueueBuf2",
     .call = DeviceCall::kQueueBuf,
     .nth = 6,
     .lines = {{2, "[LinuxV4L2CameraCapture] qbuf fail, devid 0"}}},
};

// A refused request of a stop.
struct StopFault {
    const char* name;
    DeviceCall call;
    int nth = 1;
    int mappings_left = 0;
    LogLines lines = {};
};

void PrintTo(const StopFault& fault, std::ostream* out) {
    *out << fault.name;
}

const StopFault kStopFaults[] = {
    // The system keeps the mapping; the capture cannot do anything about it.
    {.name = "Unmap1", .call = DeviceCall::kUnmap, .mappings_left = 1},
    {.name = "Unmap2", .call = DeviceCall::kUnmap, .nth = 2, .mappings_left = 1},
    {.name = "Unmap3", .call = DeviceCall::kUnmap, .nth = 3, .mappings_left = 1},
    {.name = "Unmap4", .call = DeviceCall::kUnmap, .nth = 4, .mappings_left = 1},
    {.name = "StreamOff",
     .call = DeviceCall::kStreamOff,
     .lines = {{4, "[LinuxV4L2CameraCapture] dealloc buffer pool fail, devid 0, err %"}}},
    {.name = "Close", .call = DeviceCall::kClose},
};

LogLines WithErrno(LogLines lines, int error) {
    for (LogLine& line : lines) {
        const size_t position = line.text.find('%');
        if (position != std::string::npos) {
            line.text.replace(position, 1, std::to_string(error));
        }
    }
    return lines;
}

LogLines From(const LogLines& lines, const std::string& text) {
    return {lines.begin() + static_cast<std::ptrdiff_t>(UpTo(lines, text).size()), lines.end()};
}

template <class FaultType>
class FaultTest : public CaptureTest, public ::testing::WithParamInterface<std::tuple<FaultType, Errno>> {
protected:
    FaultTest() {
        devices.SetCamera(0, Nv12Camera());
        capture.SignalCaptureFrame.connect(&collector, &FrameCollector::OnFrame);
    }

    const FaultType& TheFault() const { return std::get<0>(this->GetParam()); }
    int Error() const { return std::get<1>(this->GetParam()).number; }

    void ExpectIdle(int mappings) {
        EXPECT_EQ(devices.OpenDescriptors(), 0);
        EXPECT_EQ(devices.Mappings(), mappings);
        EXPECT_TRUE(WaitUntil([this] { return CountThreads() <= threads_before; }));
    }
    void ExpectNextStartWorks() {
        devices.ForgetScripts();
        const size_t frames = collector.Count();
        ASSERT_TRUE(capture.startCapture());
        devices.PushFrame(0, {{77}});
        EXPECT_TRUE(WaitForFrames(collector, frames + 1));
        capture.stopCapture();
        EXPECT_EQ(collector.Frames().back().bytes, std::vector<uint8_t>{77});
    }

    // May still count the joined thread of the previous test, which the system lists for a moment longer.
    const std::ptrdiff_t threads_before = CountThreads();
    FrameCollector collector;
    LinuxV4L2CameraCapture capture;
};

template <class FaultType>
std::string NameOfCase(const ::testing::TestParamInfo<std::tuple<FaultType, Errno>>& info) {
    return std::string(std::get<0>(info.param).name) + std::get<1>(info.param).name;
}

class StartFaultTest : public FaultTest<Fault> {};

TEST_P(StartFaultTest, AStartWithARefusedRequest) {
    const Fault& fault = TheFault();
    devices.Fail(fault.call, Error(), fault.nth, fault.times);
    EXPECT_EQ(capture.startCapture(), fault.starts);

    LogLines expected = UpTo(StartLines(), fault.usual_until) + WithErrno(fault.other_lines, Error());
    if (fault.starts) {
        Append(expected, From(StartLines(), fault.usual_from));
        std::string& last = expected.back().text;
        last.replace(last.size() - 8, 8, fault.last_line_ends);
    }
    EXPECT_EQ(host.OwnerLines(), expected);
    if (fault.starts) {
        EXPECT_EQ(devices.OpenDescriptors(), 1);
        EXPECT_EQ(devices.Mappings(), 4);
        ASSERT_TRUE(WaitForSelect());
        capture.stopCapture();
        EXPECT_EQ(devices.Calls(), fault.calls() + Calls{"select video0 timeout=1.000000"} + StopCalls());
    } else {
        EXPECT_EQ(devices.Calls(), fault.calls());
    }
    mappings_left = fault.mappings_left;
    ExpectIdle(fault.mappings_left);
    ExpectNextStartWorks();
}

INSTANTIATE_TEST_SUITE_P(EveryRequest, StartFaultTest,
                         ::testing::Combine(::testing::ValuesIn(kStartFaults), ::testing::ValuesIn(kErrnos)),
                         NameOfCase<Fault>);

class StreamFaultTest : public FaultTest<StreamFault> {};

TEST_P(StreamFaultTest, AStreamWithARefusedRequest) {
    const StreamFault& fault = TheFault();
    const bool interrupted = Error() == EINTR;
    const bool ends = fault.call == DeviceCall::kSelect && !interrupted;
    const size_t frames = interrupted ? fault.frames_if_interrupted : fault.frames;
    devices.Fail(fault.call, Error(), fault.nth);
    devices.PushFrame(0, {{1}});
    devices.PushFrame(0, {{2}});
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForFrames(collector, frames));
    if (ends) {
        ASSERT_TRUE(WaitUntil([this] { return capture.isStopping(); }));
    } else {
        // Both frames were queued again, or refused.
        ASSERT_TRUE(WaitUntil([this] { return devices.CallCount(DeviceCall::kQueueBuf) == 4 + 2; }));
    }
    capture.stopCapture();

    LogLines expected = {{1, "[LinuxV4L2CameraCapture] work thread start, devid 0"}};
    if (ends || fault.call == DeviceCall::kQueueBuf) {
        Append(expected, WithErrno(fault.lines, Error()));
    }
    expected.push_back({1, "[LinuxV4L2CameraCapture] work thread finish, devid 0"});
    EXPECT_EQ(host.OtherLines(), expected);
    EXPECT_EQ(collector.Count(), frames);
    ExpectIdle(0);
    ExpectNextStartWorks();
}

INSTANTIATE_TEST_SUITE_P(EveryRequest, StreamFaultTest,
                         ::testing::Combine(::testing::ValuesIn(kStreamFaults), ::testing::ValuesIn(kErrnos)),
                         NameOfCase<StreamFault>);

class StopFaultTest : public FaultTest<StopFault> {};

TEST_P(StopFaultTest, AStopWithARefusedRequestRunsToItsEnd) {
    const StopFault& fault = TheFault();
    ASSERT_TRUE(capture.startCapture());
    ASSERT_TRUE(WaitForSelect());
    host.Clear();
    devices.Fail(fault.call, Error(), fault.nth);
    capture.stopCapture();
    EXPECT_EQ(host.OwnerLines(), StopLines() + WithErrno(fault.lines, Error()));
    EXPECT_EQ(devices.Calls(), StartCalls() + Calls{"select video0 timeout=1.000000"} + StopCalls());
    mappings_left = fault.mappings_left;
    ExpectIdle(fault.mappings_left);
    ExpectNextStartWorks();
}

INSTANTIATE_TEST_SUITE_P(EveryRequest, StopFaultTest,
                         ::testing::Combine(::testing::ValuesIn(kStopFaults), ::testing::ValuesIn(kErrnos)),
                         NameOfCase<StopFault>);

}  // namespace
}  // namespace zumod::testing
