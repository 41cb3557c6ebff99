// Every request of a start, of a running stream and of a stop, refused with every errno of a list: the
// outcome, the calls, the log, what is left behind, and that the next start works.
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

// The calls of a start, put together from an ordinary one's.
class Sequence : public CaptureTest {
public:
    using CaptureTest::OpenTheOtherFiles;
    using CaptureTest::Probe;
    using CaptureTest::Scan;
    using CaptureTest::StartCalls;
    using CaptureTest::StartCallsThrough;
    using CaptureTest::StartCallsWith;

    // Probing a device that refuses every size: nothing is filled in from one try to the next.
    static Calls ProbeInVain() {
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

struct Fault {
    const char* name;
    DeviceCall call;
    int nth;
    int times;
    bool starts;
    int mappings_left;
    // All of the start's, the refused one among them.
    Calls (*calls)();
    // The lines before this one are as ever.
    const char* first_other_line;
    // In its place; "%" stands for the errno. Of a start that succeeds, the lines between here and its last
    // follow.
    LogLines other_lines;
    // Of a start that succeeds: the first line that is as ever again.
    const char* first_usual_line = nullptr;
    const char* last_line_ends = "setfps 1";
};

void PrintTo(const Fault& fault, std::ostream* out) {
    *out << fault.name;
}

// In a start: 64 files are opened and one of them probed in the scan; the device is opened and probed again.
const Fault kStartFaults[] = {
    {"ScanOpen",
     DeviceCall::kOpen,
     1,
     1,
     false,
     0,
     [] { return Calls{"open /dev/video0 O_RDONLY"} + Sequence::OpenTheOtherFiles(); },
     "[CameraEnumerator]",
     {{4, "[LinuxV4L2CameraCapture] startCapture, camera not founded, devid 0"}}},
    {"ScanEnumFmt",
     DeviceCall::kEnumFmt,
     1,
     1,
     false,
     0,
     [] {
         return Calls{"open /dev/video0 O_RDONLY", "ENUM_FMT video0 type=1 index=0 0", "close video0"} +
                Sequence::OpenTheOtherFiles();
     },
     "[CameraEnumerator]",
     {{2, "[CameraEnumerator] invalid device, dev index 0, device /dev/video0"},
      {4, "[LinuxV4L2CameraCapture] startCapture, camera not founded, devid 0"}}},
    {"ScanTryFmt",
     DeviceCall::kTryFmt,
     1,
     16,
     false,
     0,
     [] {
         return Calls{"open /dev/video0 O_RDONLY"} + Sequence::ProbeInVain() + Calls{"close video0"} +
                Sequence::OpenTheOtherFiles();
     },
     "[CameraEnumerator]",
     {{2, "[CameraEnumerator] invalid device, dev index 0, device /dev/video0"},
      {4, "[LinuxV4L2CameraCapture] startCapture, camera not founded, devid 0"}}},
    {"ScanQueryCap",
     DeviceCall::kQueryCap,
     1,
     1,
     false,
     0,
     &Sequence::Scan,
     "[CameraEnumerator]",
     {{2, "[CameraEnumerator] dev index 0, query cap fail, /dev/video0"},
      {4, "[LinuxV4L2CameraCapture] startCapture, camera not founded, devid 0"}}},
    // A scan looks at no close.
    {"ScanClose",
     DeviceCall::kClose,
     1,
     1,
     true,
     0,
     &Sequence::StartCalls,
     "startCapture success",
     {},
     "startCapture success"},
    {"Open",
     DeviceCall::kOpen,
     65,
     1,
     false,
     0,
     [] { return Sequence::Scan() + Calls{"open /dev/video0 O_RDWR|O_NONBLOCK"}; },
     "file /dev/video0, enum capabilities",
     {{4, "[LinuxV4L2CameraCapture] startCapture, open device fail, devid 0, err: %"}}},
    {"EnumFmt",
     DeviceCall::kEnumFmt,
     3,
     1,
     false,
     0,
     [] {
         return Sequence::Scan() + Calls{"open /dev/video0 O_RDWR|O_NONBLOCK",
                                         "ENUM_FMT video0 type=1 index=0 0", "close video0"};
     },
     "support 640x480",
     {{4, "[LinuxV4L2CameraCapture] query device capabilities fail, devid 0, err: %"}}},
    // The end of the list, which every device refuses.
    {"EnumFmtEnd",
     DeviceCall::kEnumFmt,
     4,
     1,
     true,
     0,
     &Sequence::StartCalls,
     "startCapture success",
     {},
     "startCapture success"},
    {"TryFmt",
     DeviceCall::kTryFmt,
     17,
     16,
     false,
     0,
     [] {
         return Sequence::Scan() + Calls{"open /dev/video0 O_RDWR|O_NONBLOCK"} + Sequence::ProbeInVain() +
                Calls{"close video0"};
     },
     "support 640x480",
     {{4, "[LinuxV4L2CameraCapture] query device capabilities fail, devid 0, err: %"}}},
    {"GetFmt",
     DeviceCall::kGetFmt,
     1,
     1,
     true,
     0,
     [] {
         return Sequence::StartCallsWith(
             "S_FMT video0 type=1 640x480 NV12 field=1 stride=1280 size=614400 colorspace=8",
             {"S_FMT video0 type=1 640x480 NV12"});
     },
     "current size",
     {{2, "[LinuxV4L2CameraCapture] get capture format fail, devid 0, err: %"}},
     "set success"},
    {"SetFmt",
     DeviceCall::kSetFmt,
     1,
     1,
     false,
     0,
     [] {
         return Sequence::StartCallsThrough(
                    "S_FMT video0 type=1 640x480 NV12 field=1 stride=1280 size=614400 colorspace=8") +
                Calls{"close video0"};
     },
     "set success",
     {{4, "[LinuxV4L2CameraCapture] set capture format fail, devid 0, err: %"}}},
    {"GetParm",
     DeviceCall::kGetParm,
     1,
     1,
     true,
     0,
     [] { return Sequence::StartCallsWith("S_PARM video0 type=1 timeperframe=1/15", {}); },
     "set capture fps success",
     {{8, "[LinuxV4L2CameraCapture] query support change fps fail, devid 0, err: %"}},
     "alloc buffer pool",
     "setfps 0"},
    {"SetParm",
     DeviceCall::kSetParm,
     1,
     1,
     true,
     0,
     &Sequence::StartCalls,
     "set capture fps success",
     {{8, "[LinuxV4L2CameraCapture] set capture fps fail, devid 0, err: %"}},
     "alloc buffer pool",
     "setfps 0"},
    {"ReqBufs",
     DeviceCall::kReqBufs,
     1,
     1,
     false,
     0,
     [] {
         return Sequence::StartCallsThrough("REQBUFS video0 type=1 memory=1 count=4") + Calls{"close video0"};
     },
     "start capture device ",
     {{4, "[LinuxV4L2CameraCapture] req buf fail, devid 0, err %"},
      {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    // What is mapped already stays so, deliberately.
    {"QueryBuf1",
     DeviceCall::kQueryBuf,
     1,
     1,
     false,
     0,
     [] {
         return Sequence::StartCallsThrough("QUERYBUF video0 type=1 memory=1 index=0") +
                Calls{"close video0"};
     },
     "start capture device ",
     {{4, "[LinuxV4L2CameraCapture] query buf fail, devid 0, err %"},
      {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {"QueryBuf2",
     DeviceCall::kQueryBuf,
     2,
     1,
     false,
     1,
     [] {
         return Sequence::StartCallsThrough("QUERYBUF video0 type=1 memory=1 index=1") +
                Calls{"close video0"};
     },
     "start capture device ",
     {{4, "[LinuxV4L2CameraCapture] query buf fail, devid 0, err %"},
      {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {"QueryBuf3",
     DeviceCall::kQueryBuf,
     3,
     1,
     false,
     2,
     [] {
         return Sequence::StartCallsThrough("QUERYBUF video0 type=1 memory=1 index=2") +
                Calls{"close video0"};
     },
     "start capture device ",
     {{4, "[LinuxV4L2CameraCapture] query buf fail, devid 0, err %"},
      {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {"QueryBuf4",
     DeviceCall::kQueryBuf,
     4,
     1,
     false,
     3,
     [] {
         return Sequence::StartCallsThrough("QUERYBUF video0 type=1 memory=1 index=3") +
                Calls{"close video0"};
     },
     "start capture device ",
     {{4, "[LinuxV4L2CameraCapture] query buf fail, devid 0, err %"},
      {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {"Map1",
     DeviceCall::kMap,
     1,
     1,
     false,
     0,
     [] {
         return Sequence::StartCallsThrough(
                    "mmap video0 length=4096 offset=0 PROT_READ|PROT_WRITE MAP_SHARED") +
                Calls{"close video0"};
     },
     "start capture device ",
     {{4, "[LinuxV4L2CameraCapture] map buf fail, devid 0, err %"},
      {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {"Map2",
     DeviceCall::kMap,
     2,
     1,
     false,
     0,
     [] {
         return Sequence::StartCallsThrough(
                    "mmap video0 length=4096 offset=65536 PROT_READ|PROT_WRITE MAP_SHARED") +
                Calls{"munmap video0 buffer=0 length=4096", "close video0"};
     },
     "start capture device ",
     {{4, "[LinuxV4L2CameraCapture] map buf fail, devid 0, err %"},
      {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {"Map3",
     DeviceCall::kMap,
     3,
     1,
     false,
     0,
     [] {
         return Sequence::StartCallsThrough(
                    "mmap video0 length=4096 offset=131072 PROT_READ|PROT_WRITE MAP_SHARED") +
                Calls{"munmap video0 buffer=0 length=4096", "munmap video0 buffer=1 length=4096",
                      "close video0"};
     },
     "start capture device ",
     {{4, "[LinuxV4L2CameraCapture] map buf fail, devid 0, err %"},
      {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {"Map4",
     DeviceCall::kMap,
     4,
     1,
     false,
     0,
     [] {
         return Sequence::StartCallsThrough(
                    "mmap video0 length=4096 offset=196608 PROT_READ|PROT_WRITE MAP_SHARED") +
                Calls{"munmap video0 buffer=0 length=4096", "munmap video0 buffer=1 length=4096",
                      "munmap video0 buffer=2 length=4096", "close video0"};
     },
     "start capture device ",
     {{4, "[LinuxV4L2CameraCapture] map buf fail, devid 0, err %"},
      {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {"QueueBuf1",
     DeviceCall::kQueueBuf,
     1,
     1,
     false,
     1,
     [] {
         return Sequence::StartCallsThrough("QBUF video0 type=1 memory=1 index=0 length=4096") +
                Calls{"close video0"};
     },
     "start capture device ",
     {{4, "[LinuxV4L2CameraCapture] qbuf fail, devid 0, err %"},
      {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {"QueueBuf2",
     DeviceCall::kQueueBuf,
     2,
     1,
     false,
     2,
     [] {
         return Sequence::StartCallsThrough("QBUF video0 type=1 memory=1 index=1 length=4096 offset=65536") +
                Calls{"close video0"};
     },
     "start capture device ",
     {{4, "[LinuxV4L2CameraCapture] qbuf fail, devid 0, err %"},
      {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {"QueueBuf3",
     DeviceCall::kQueueBuf,
     3,
     1,
     false,
     3,
     [] {
         return Sequence::StartCallsThrough("QBUF video0 type=1 memory=1 index=2 length=4096 offset=131072") +
                Calls{"close video0"};
     },
     "start capture device ",
     {{4, "[LinuxV4L2CameraCapture] qbuf fail, devid 0, err %"},
      {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {"QueueBuf4",
     DeviceCall::kQueueBuf,
     4,
     1,
     false,
     4,
     [] {
         return Sequence::StartCallsThrough("QBUF video0 type=1 memory=1 index=3 length=4096 offset=196608") +
                Calls{"close video0"};
     },
     "start capture device ",
     {{4, "[LinuxV4L2CameraCapture] qbuf fail, devid 0, err %"},
      {4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
    {"StreamOn",
     DeviceCall::kStreamOn,
     1,
     1,
     false,
     0,
     [] {
         return Sequence::StartCallsThrough("STREAMON video0 type=1") +
                Calls{"munmap video0 buffer=0 length=4096",
                      "munmap video0 buffer=1 length=4096",
                      "munmap video0 buffer=2 length=4096",
                      "munmap video0 buffer=3 length=4096",
                      "STREAMOFF video0 type=1",
                      "close video0"};
     },
     "create work thread",
     {{4, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid 0, err: %"}}},
};

// In a running stream that is given two frames.
struct StreamFault {
    const char* name;
    DeviceCall call;
    int nth;
    // "%" as above; what an interruption logs is nothing in either case but QBUF's.
    LogLines lines;
    size_t frames;
    size_t frames_if_interrupted;
};

void PrintTo(const StreamFault& fault, std::ostream* out) {
    *out << fault.name;
}

const StreamFault kStreamFaults[] = {
    {"Select1",
     DeviceCall::kSelect,
     1,
     {{4, "[LinuxV4L2CameraCapture] workLoop, select fail, devid 0, err: %"}},
     0,
     2},
    {"Select2",
     DeviceCall::kSelect,
     2,
     {{4, "[LinuxV4L2CameraCapture] workLoop, select fail, devid 0, err: %"}},
     1,
     2},
    {"DequeueBuf1", DeviceCall::kDequeueBuf, 1, {}, 2, 2},
    {"DequeueBuf2", DeviceCall::kDequeueBuf, 2, {}, 2, 2},
    {"QueueBuf1", DeviceCall::kQueueBuf, 5, {{2, "[LinuxV4L2CameraCapture] qbuf fail, devid 0"}}, 2, 2},
    {"QueueBuf2", DeviceCall::kQueueBuf, 6, {{2, "[LinuxV4L2CameraCapture] qbuf fail, devid 0"}}, 2, 2},
};

struct StopFault {
    const char* name;
    DeviceCall call;
    int nth;
    int mappings_left;
    LogLines lines;
};

void PrintTo(const StopFault& fault, std::ostream* out) {
    *out << fault.name;
}

const StopFault kStopFaults[] = {
    // The system has not unmapped it; there is nothing to be done about it.
    {"Unmap1", DeviceCall::kUnmap, 1, 1, {}},
    {"Unmap2", DeviceCall::kUnmap, 2, 1, {}},
    {"Unmap3", DeviceCall::kUnmap, 3, 1, {}},
    {"Unmap4", DeviceCall::kUnmap, 4, 1, {}},
    {"StreamOff",
     DeviceCall::kStreamOff,
     1,
     0,
     {{4, "[LinuxV4L2CameraCapture] dealloc buffer pool fail, devid 0, err %"}}},
    {"Close", DeviceCall::kClose, 1, 0, {}},
};

LogLines WithErrno(LogLines lines, int error) {
    for (LogLine& line : lines) {
        const size_t place = line.text.find('%');
        if (place != std::string::npos) {
            line.text.replace(place, 1, std::to_string(error));
        }
    }
    return lines;
}

LogLines From(const LogLines& lines, const std::string& text) {
    const LogLines head = UpTo(lines, text);
    return {lines.begin() + static_cast<std::ptrdiff_t>(head.size()), lines.end()};
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

    // A thread that was joined may be listed for a moment longer, so this may count the last test's.
    const std::ptrdiff_t threads_before = CountThreads();
    FrameCollector collector;
    LinuxV4L2CameraCapture capture;
};

template <class FaultType>
std::string NameOfCase(const ::testing::TestParamInfo<std::tuple<FaultType, Errno>>& info) {
    return std::string(std::get<0>(info.param).name) + std::get<1>(info.param).name;
}

class StartFaultTest : public FaultTest<Fault> {};

TEST_P(StartFaultTest, AStartEndsAsItShould) {
    const Fault& fault = TheFault();
    devices.Fail(fault.call, Error(), fault.nth, fault.times);
    EXPECT_EQ(capture.startCapture(), fault.starts);

    LogLines expected = UpTo(StartLines(), fault.first_other_line) + WithErrno(fault.other_lines, Error());
    if (fault.starts) {
        Append(expected, From(StartLines(), fault.first_usual_line));
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

TEST_P(StreamFaultTest, AStreamGoesOnOrEndsAsItShould) {
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
        // Both frames are given back, or refused.
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

TEST_P(StopFaultTest, AStopGoesOnToItsEnd) {
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
