// What the tests of the capture share: a slot that collects frames, and the calls and log lines of an
// ordinary start and stop, written out.
//
// Thread rule: the test's thread, except for FrameCollector::OnFrame, which the capture's thread calls.
#pragma once

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "src/capture/linux_v4l2_camera_capture.h"
#include "src/module/attach_runtime.h"
#include "tests/support/doubles/device_double.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/watch/wait_until.h"

namespace zumod::testing {

using Calls = std::vector<std::string>;

template <class Part>
void Append(std::vector<Part>& all, const std::vector<Part>& part) {
    all.insert(all.end(), part.begin(), part.end());
}

template <class Part>
std::vector<Part> operator+(std::vector<Part> all, const std::vector<Part>& part) {
    Append(all, part);
    return all;
}

// The lines before the first one that contains `text`. If none does, fails the test and returns all lines.
inline LogLines UpTo(const LogLines& lines, const std::string& text) {
    LogLines earlier;
    for (const LogLine& line : lines) {
        if (line.text.find(text) != std::string::npos) {
            return earlier;
        }
        earlier.push_back(line);
    }
    ADD_FAILURE() << "no line with " << text;
    return earlier;
}

inline Calls UpTo(const Calls& calls, const std::string& call) {
    Calls earlier;
    for (const std::string& each : calls) {
        if (each == call) {
            return earlier;
        }
        earlier.push_back(each);
    }
    ADD_FAILURE() << "no call " << call;
    return earlier;
}

struct ReceivedFrame {
    std::vector<uint8_t> bytes;  // the first ones
    unsigned long size;
    int width;
    int height;
    int pixel_format;

    bool operator==(const ReceivedFrame&) const = default;
};

inline void PrintTo(const ReceivedFrame& frame, std::ostream* out) {
    *out << "{";
    for (const uint8_t byte : frame.bytes) {
        *out << int{byte} << " ";
    }
    *out << "size " << frame.size << ", " << frame.width << "x" << frame.height << ", " << frame.pixel_format
         << "}";
}

class FrameCollector : public sigslot::has_slots<sigslot::single_threaded> {
public:
    void OnFrame(const unsigned char* data, unsigned long size, int width, int height, int pixel_format) {
        if (during) {
            during();
        }
        const std::lock_guard guard(m_mutex);
        m_frames.push_back(
            {{data, data + std::min<unsigned long>(size, 3)}, size, width, height, pixel_format});
    }

    std::vector<ReceivedFrame> Frames() const {
        const std::lock_guard guard(m_mutex);
        return m_frames;
    }
    size_t Count() const {
        const std::lock_guard guard(m_mutex);
        return m_frames.size();
    }

    // Called on the capture's thread for each frame. Set it before the capture starts.
    std::function<void()> during;

private:
    mutable std::mutex m_mutex;
    std::vector<ReceivedFrame> m_frames;
};

class CaptureTest : public ::testing::Test {
protected:
    CaptureTest() { AttachRuntime(&host); }
    ~CaptureTest() override {
        EXPECT_EQ(devices.OpenDescriptors(), 0);
        EXPECT_EQ(devices.Mappings(), mappings_left);
        EXPECT_EQ(devices.Misuse(), Calls{});
        DetachRuntime();
    }

    static CameraModel Camera(std::initializer_list<uint32_t> formats, FrameSize size = {640, 480}) {
        CameraModel model;
        for (const uint32_t format : formats) {
            model.formats.push_back({format, {size}});
        }
        return model;
    }
    static CameraModel Nv12Camera() { return Camera({V4L2_PIX_FMT_NV12}); }

    bool WaitForSelect() {
        return WaitUntil([this] { return devices.CallCount(DeviceCall::kSelect) > 0; });
    }
    bool WaitForFrames(const FrameCollector& collector, size_t count) {
        return WaitUntil([&collector, count] { return collector.Count() >= count; });
    }

    // The calls and lines of a start with the one camera Nv12Camera() at /dev/video0 and the defaults.

    static Calls Probe() {
        return {"ENUM_FMT video0 type=1 index=0 0",
                "ENUM_FMT video0 type=1 index=1 NV12 flags=2",
                "TRY_FMT video0 type=1 128x96 NV12",
                "TRY_FMT video0 type=1 160x120 NV12",
                "TRY_FMT video0 type=1 176x144 NV12",
                "TRY_FMT video0 type=1 320x240 NV12",
                "TRY_FMT video0 type=1 352x288 NV12",
                "TRY_FMT video0 type=1 640x480 NV12",
                "TRY_FMT video0 type=1 704x576 NV12 field=1 stride=1280 size=614400 colorspace=8",
                "TRY_FMT video0 type=1 800x600 NV12 field=1 stride=1280 size=614400 colorspace=8",
                "TRY_FMT video0 type=1 960x720 NV12 field=1 stride=1280 size=614400 colorspace=8",
                "TRY_FMT video0 type=1 1024x768 NV12 field=1 stride=1280 size=614400 colorspace=8",
                "TRY_FMT video0 type=1 1152x864 NV12 field=1 stride=1280 size=614400 colorspace=8",
                "TRY_FMT video0 type=1 1280x600 NV12 field=1 stride=1280 size=614400 colorspace=8",
                "TRY_FMT video0 type=1 1280x720 NV12 field=1 stride=1280 size=614400 colorspace=8",
                "TRY_FMT video0 type=1 1440x900 NV12 field=1 stride=1280 size=614400 colorspace=8",
                "TRY_FMT video0 type=1 1440x1080 NV12 field=1 stride=1280 size=614400 colorspace=8",
                "TRY_FMT video0 type=1 1920x1080 NV12 field=1 stride=1280 size=614400 colorspace=8"};
    }
    static Calls OpenTheOtherFiles() {
        Calls calls;
        for (int index = 1; index < 64; ++index) {
            calls.push_back("open /dev/video" + std::to_string(index) + " O_RDONLY");
        }
        return calls;
    }
    static Calls Scan() {
        return Calls{"open /dev/video0 O_RDONLY"} + Probe() + Calls{"QUERYCAP video0", "close video0"} +
               OpenTheOtherFiles();
    }
    static Calls StartCalls() {
        return Scan() + Calls{"open /dev/video0 O_RDWR|O_NONBLOCK"} + Probe() +
               Calls{
                   "G_FMT video0 type=1 0x0 0",
                   "S_FMT video0 type=1 640x480 NV12 field=1 stride=1280 size=614400 colorspace=8",
                   "G_PARM video0 type=1",
                   "S_PARM video0 type=1 timeperframe=1/15",
                   "REQBUFS video0 type=1 memory=1 count=4",
                   "QUERYBUF video0 type=1 memory=1 index=0",
                   "mmap video0 length=4096 offset=0 PROT_READ|PROT_WRITE MAP_SHARED",
                   "QBUF video0 type=1 memory=1 index=0 length=4096",
                   "QUERYBUF video0 type=1 memory=1 index=1",
                   "mmap video0 length=4096 offset=65536 PROT_READ|PROT_WRITE MAP_SHARED",
                   "QBUF video0 type=1 memory=1 index=1 length=4096 offset=65536",
                   "QUERYBUF video0 type=1 memory=1 index=2",
                   "mmap video0 length=4096 offset=131072 PROT_READ|PROT_WRITE MAP_SHARED",
                   "QBUF video0 type=1 memory=1 index=2 length=4096 offset=131072",
                   "QUERYBUF video0 type=1 memory=1 index=3",
                   "mmap video0 length=4096 offset=196608 PROT_READ|PROT_WRITE MAP_SHARED",
                   "QBUF video0 type=1 memory=1 index=3 length=4096 offset=196608",
                   "STREAMON video0 type=1",
               };
    }
    // These calls up to and including one of them; and with other calls instead of one of them.
    static Calls StartCallsThrough(const std::string& call) { return UpTo(StartCalls(), call) + Calls{call}; }
    static Calls StartCallsWith(const std::string& call, const Calls& instead) {
        const Calls all = StartCalls();
        const Calls earlier = UpTo(all, call);
        return earlier + instead +
               Calls(all.begin() + static_cast<std::ptrdiff_t>(earlier.size()) + 1, all.end());
    }
    static Calls UnmapCalls() {
        return {"munmap video0 buffer=0 length=4096", "munmap video0 buffer=1 length=4096",
                "munmap video0 buffer=2 length=4096", "munmap video0 buffer=3 length=4096"};
    }
    static Calls StopCalls() { return UnmapCalls() + Calls{"STREAMOFF video0 type=1", "close video0"}; }

    static LogLines StartLines() {
        return {
            {8, "[LinuxV4L2CameraCapture] startCapture, devid 0, get device info"},
            {1, "[CameraEnumerator]  id: 0 name: Test camera bus:  usb-1 file: /dev/video0 res:  640x480"},
            {8, "[LinuxV4L2CameraCapture] startCapture, devid 0, open device file /dev/video0"},
            {8, "[LinuxV4L2CameraCapture] startCapture, devid 0 file /dev/video0, enum capabilities"},
            {1, "[LinuxV4L2CameraCapture] startCapture, devid 0 support 640x480 fmt NV12"},
            {8, "[LinuxV4L2CameraCapture] startCapture, devid 0, search mached format"},
            {8, "[LinuxV4L2CameraCapture] startCapture, devid 0, set input format 640x480 fmt NV12"},
            {2,
             "[LinuxV4L2CameraCapture] current size 640x480 fmt 0, requresize 640x480 fmt 842094158 devid 0, "
             "need set device 1"},
            {1, "[LinuxV4L2CameraCapture] set success 640x480 fmt 842094158 devid 640"},
            {8, "[LinuxV4L2CameraCapture] startCapture, devid 0, set fps"},
            {8, "[LinuxV4L2CameraCapture] set capture fps success, devid 0"},
            {8, "[LinuxV4L2CameraCapture] startCapture, devid 0, alloc buffer pool"},
            {8, "[LinuxV4L2CameraCapture] startCapture, devid 0, start capture device "},
            {8, "[LinuxV4L2CameraCapture] startCapture, devid 0, create work thread"},
            {1,
             "[LinuxV4L2CameraCapture] startCapture success, devid 0, width 640 height 480 format NV12 fps "
             "15 "
             "setfps 1"},
        };
    }
    static LogLines StopLines() {
        return {
            {1, "[LinuxV4L2CameraCapture] stopCapture, devid 0"},
            {8, "[LinuxV4L2CameraCapture] stopCapture, devid 0 begin stop work thread"},
            {8, "[LinuxV4L2CameraCapture] stopCapture, devid 0 finish stop work thread"},
            {8, "[LinuxV4L2CameraCapture] stopCapture, devid 0 release buffer pool and close device"},
        };
    }
    static LogLines IdleStopLines() { return {{1, "[LinuxV4L2CameraCapture] stopCapture, devid 0"}}; }
    static LogLines WorkLines() {
        return {{1, "[LinuxV4L2CameraCapture] work thread start, devid 0"},
                {1, "[LinuxV4L2CameraCapture] work thread finish, devid 0"}};
    }

    RecordingHost host;
    DeviceDouble devices;
    // Required by the contract: a start that fails while it queues buffers leaks their mappings.
    int mappings_left = 0;
};

}  // namespace zumod::testing
