#include "capture/camera_enumerator.h"

#include <fcntl.h>
#include <linux/videodev2.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <utility>

#include "capture/device_calls.h"
#include "capture/supported_formats.h"
#include "module/log.h"

namespace zumod {

template class CSingleton_T<CameraEnumerator>;

namespace {

constexpr int kDeviceCount = 64;
constexpr size_t kPathSize = 20;

// Closes the device however the block is left, also by an exception.
class OpenDevice {
public:
    explicit OpenDevice(const char* path) : m_descriptor(device::Open(path, O_RDONLY)) {}
    ~OpenDevice() {
        if (IsOpen()) {
            device::Close(m_descriptor);
        }
    }
    OpenDevice(const OpenDevice&) = delete;
    OpenDevice& operator=(const OpenDevice&) = delete;

    bool IsOpen() const { return m_descriptor >= 0; }
    int Descriptor() const { return m_descriptor; }

private:
    const int m_descriptor;
};

// A fixed array of the kernel's, which may be full to its last byte.
template <size_t kSize>
std::string TextOf(const unsigned char (&field)[kSize]) {
    const char* text = reinterpret_cast<const char*>(field);
    return {text, strnlen(text, kSize)};
}

uint64_t SizeKey(const SupportedFormat& format) {
    return uint64_t{static_cast<uint32_t>(format.width)} << 32 | static_cast<uint32_t>(format.height);
}

// Fills `resolutions` with the distinct sizes; returns them as " 640x480 1280x720".
std::string CollectSizes(const std::vector<SupportedFormat>& formats,
                         std::vector<CameraResolution>& resolutions) {
    std::set<uint64_t> seen;
    std::string text;
    for (const SupportedFormat& format : formats) {
        if (seen.insert(SizeKey(format)).second) {
            resolutions.push_back({format.width, format.height});
            text += ' ' + std::to_string(format.width) + 'x' + std::to_string(format.height);
        }
    }
    return text;
}

void ProbeDevice(int index, std::vector<CameraDeviceInfo>& cameras) {
    char path[kPathSize];
    std::snprintf(path, sizeof(path), "/dev/video%d", index);
    const OpenDevice device(path);
    if (!device.IsOpen()) {
        return;
    }

    std::vector<SupportedFormat> formats;
    enumSupportedFormats(device.Descriptor(), formats);
    if (formats.empty()) {
        ZuModLog(kLogIgnored, "[CameraEnumerator] invalid device, dev index %d, device %s", index, path);
        return;
    }

    v4l2_capability capability{};
    if (device::Ioctl(device.Descriptor(), VIDIOC_QUERYCAP, &capability) < 0) {
        ZuModLog(kLogIgnored, "[CameraEnumerator] dev index %d, query cap fail, %s", index, path);
        return;
    }

    CameraDeviceInfo info;
    info.id = static_cast<uint32_t>(cameras.size());
    info.name = TextOf(capability.card);
    info.displayName = info.name;
    info.file = path;
    const std::string sizes = CollectSizes(formats, info.resolutions);
    const std::string text = " id: " + std::to_string(info.id) + " name: " + info.name +
                             " bus:  " + TextOf(capability.bus_info) + " file: " + info.file +
                             " res: " + sizes;
    cameras.push_back(std::move(info));
    ZuModLog(kLogEvent, "[CameraEnumerator] %s", text.c_str());
}

}  // namespace

std::vector<CameraDeviceInfo> CameraEnumerator::getCameraList() {
    std::vector<CameraDeviceInfo> cameras;
    for (int index = 0; index < kDeviceCount; ++index) {
        ProbeDevice(index, cameras);
    }
    return cameras;
}

bool CameraEnumerator::getCameraInfo(uint32_t id, CameraDeviceInfo& info) {
    std::vector<CameraDeviceInfo> cameras = getCameraList();
    // An id is a position.
    if (id >= cameras.size()) {
        return false;
    }
    info = std::move(cameras[id]);
    return true;
}

}  // namespace zumod
