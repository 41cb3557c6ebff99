// A camera list of four cameras, with its records and log lines, against a bare loop that makes the same
// calls to the same device double and stores nothing.
#include <fcntl.h>
#include <linux/videodev2.h>

#include <charconv>
#include <cstdio>
#include <cstring>

#include "bench/paired.h"
#include "src/capture/camera_enumerator.h"
#include "src/capture/device_calls.h"
#include "src/module/attach_runtime.h"
#include "tests/support/doubles/device_double.h"
#include "tests/support/doubles/quiet_host.h"

namespace zumod::bench {
namespace {

constexpr double kLimit = 1.15;

constexpr uint32_t kSizes[][2] = {
    {128, 96},  {160, 120},  {176, 144},  {320, 240},  {352, 288},  {640, 480},  {704, 576},   {800, 600},
    {960, 720}, {1024, 768}, {1152, 864}, {1280, 600}, {1280, 720}, {1440, 900}, {1440, 1080}, {1920, 1080}};

// `write_path` fills 20 bytes for an index.
template <class WritePath>
void MakeTheCalls(WritePath write_path) {
    for (int index = 0; index < 64; ++index) {
        char path[20];
        write_path(path, index);
        const int descriptor = device::Open(path, O_RDONLY);
        if (descriptor < 0) {
            continue;
        }
        uint32_t formats[8];
        size_t count = 0;
        v4l2_fmtdesc description{};
        description.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        while (device::Ioctl(descriptor, VIDIOC_ENUM_FMT, &description) == 0) {
            formats[count++] = description.pixelformat;
            ++description.index;
        }
        v4l2_format format{};
        format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        for (const auto& [width, height] : kSizes) {
            for (size_t each = 0; each < count; ++each) {
                format.fmt.pix.width = width;
                format.fmt.pix.height = height;
                format.fmt.pix.pixelformat = formats[each];
                benchmark::DoNotOptimize(device::Ioctl(descriptor, VIDIOC_TRY_FMT, &format));
            }
        }
        v4l2_capability capability{};
        device::Ioctl(descriptor, VIDIOC_QUERYCAP, &capability);
        benchmark::DoNotOptimize(capability);
        device::Close(descriptor);
    }
}

template <class WritePath>
void MeasureCameraList(benchmark::State& state, WritePath write_path) {
    testing::QuietHost host;
    AttachRuntime(&host);
    testing::DeviceDouble devices;
    devices.SetRecording(false);
    for (int index = 0; index < 4; ++index) {
        devices.SetCamera(index, {.formats = {{V4L2_PIX_FMT_YUYV, {{320, 240}, {640, 480}}},
                                              {V4L2_PIX_FMT_MJPEG, {{640, 480}, {1280, 720}, {1920, 1080}}},
                                              {V4L2_PIX_FMT_NV12, {{640, 480}, {1280, 720}}}}});
    }
    RunPaired(
        state, kLimit, [] { benchmark::DoNotOptimize(CameraEnumerator::GetInstance()->getCameraList()); },
        [write_path] { MakeTheCalls(write_path); });
    DetachRuntime();
}

// The minimum: a loop that formats the paths with snprintf.
void CameraListOfFour(benchmark::State& state) {
    MeasureCameraList(
        state, [](char(&path)[20], int index) { std::snprintf(path, sizeof(path), "/dev/video%d", index); });
}
BENCHMARK(CameraListOfFour)->UseManualTime()->MinTime(1);

// The loop formats its paths as the enumerator does. The difference is the cost of the records and the log
// lines, compared with devices that answer in a few nanoseconds.
void CameraListOfFourLeastPaths(benchmark::State& state) {
    MeasureCameraList(state, [](char(&path)[20], int index) {
        std::memcpy(path, "/dev/video", sizeof("/dev/video"));
        *std::to_chars(path + sizeof("/dev/video") - 1, path + sizeof(path) - 1, index).ptr = '\0';
    });
}
BENCHMARK(CameraListOfFourLeastPaths)->UseManualTime()->MinTime(1);

}  // namespace
}  // namespace zumod::bench
