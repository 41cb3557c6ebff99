#include "src/capture/camera_enumerator.h"

#include <fcntl.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "src/base/own_memory.h"
#include "src/capture/device_calls.h"
#include "src/capture/pixel_formats.h"
#include "src/module/log.h"

namespace zumod {

template class CSingleton_T<CameraEnumerator>;

namespace {

constexpr int kDeviceCount = 64;
constexpr size_t kPathSize = 20;
constexpr size_t kPathStartLength = std::string_view("/dev/video").size();
// Enough for the log line of most cameras. Only a hint.
constexpr size_t kUsualLineSize = 256;

// An open device file, closed by the destructor.
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

// Text of a fixed-size kernel array, which has no terminating zero if it is full.
template <size_t kSize>
std::string_view TextOf(const unsigned char (&field)[kSize]) {
    const char* text = reinterpret_cast<const char*>(field);
    return {text, strnlen(text, kSize)};
}

// Appends each distinct size to `resolutions`, and to the text as " 640x480".
void CollectSizes(const std::vector<SupportedFormat>& formats, std::vector<CameraResolution>& resolutions,
                  std::string& text) {
    resolutions.reserve(formats.size());
    for (const SupportedFormat& format : formats) {
        const CameraResolution size{format.width, format.height};
        if (std::find(resolutions.begin(), resolutions.end(), size) != resolutions.end()) {
            continue;
        }
        resolutions.push_back(size);
        text += ' ';
        text += std::to_string(size.width);
        text += 'x';
        text += std::to_string(size.height);
    }
}

// Appends the camera's record. Returns the text of its log line.
std::string AddCamera(const v4l2_capability& capability, const std::vector<SupportedFormat>& formats,
                      const char* path, std::vector<CameraDeviceInfo>& cameras) {
    CameraDeviceInfo info;
    info.id = static_cast<uint32_t>(cameras.size());
    info.name = TextOf(capability.card);
    info.displayName = info.name;
    info.file = path;
    std::string text;
    text.reserve(kUsualLineSize);
    text += " id: ";
    text += std::to_string(info.id);
    text += " name: ";
    text += info.name;
    text += " bus:  ";
    text += TextOf(capability.bus_info);
    text += " file: ";
    text += info.file;
    text += " res: ";
    CollectSizes(formats, info.resolutions, text);
    cameras.push_back(std::move(info));
    return text;
}

void ProbeDevice(int index, std::vector<CameraDeviceInfo>& cameras) {
    char path[kPathSize] = "/dev/video";
    std::to_chars(path + kPathStartLength, path + kPathSize - 1, index);
    const OpenDevice device(path);
    if (!device.IsOpen()) {
        return;
    }

    std::vector<SupportedFormat> formats;
    Allocate([&] { enumSupportedFormats(device.Descriptor(), formats); });
    if (formats.empty()) {
        ZuModLog(kLogIgnored, "[CameraEnumerator] invalid device, dev index %d, device %s", index, path);
        return;
    }

    v4l2_capability capability{};
    if (device::Ioctl(device.Descriptor(), VIDIOC_QUERYCAP, &capability) < 0) {
        ZuModLog(kLogIgnored, "[CameraEnumerator] dev index %d, query cap fail, %s", index, path);
        return;
    }

    const std::string text = Allocate([&] { return AddCamera(capability, formats, path, cameras); });
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
    // The id is the position in the list.
    if (id >= cameras.size()) {
        return false;
    }
    info = std::move(cameras[id]);
    return true;
}

}  // namespace zumod
