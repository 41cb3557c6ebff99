#include "host/video_devices.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <new>

#include "common/error.h"
#include "common/parse_number.h"
#include "common/safe_text.h"

namespace zumod::host {
namespace {

constexpr int kDeviceCount = 64;
constexpr uint32_t kMostFormats = 32;
constexpr size_t kMostProblems = 8;

// What the module can capture.
constexpr uint32_t kUsableFormats[] = {V4L2_PIX_FMT_NV12, V4L2_PIX_FMT_NV21, V4L2_PIX_FMT_YUV420,
                                       V4L2_PIX_FMT_YVU420, V4L2_PIX_FMT_YUYV};

// Text of a fixed-size kernel array, which has no terminating zero if it is full.
template <size_t kSize>
std::string TextOf(const unsigned char (&field)[kSize]) {
    const char* const text = reinterpret_cast<const char*>(field);
    return {text, strnlen(text, kSize)};
}

// Four characters; those at the end may be blank.
std::string FourCcOf(uint32_t format) {
    std::string text;
    for (unsigned shift = 0; shift < 32; shift += 8) {
        text += static_cast<char>(format >> shift & 0x7FU);
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

bool CapturesPictures(const v4l2_capability& capability) {
    const uint32_t bits = (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? capability.device_caps
                                                                                : capability.capabilities;
    return (bits & V4L2_CAP_VIDEO_CAPTURE) != 0;
}

// "/dev/video0 and /dev/video2"
std::string Join(const std::vector<std::string>& words, const char* last) {
    std::string text;
    for (size_t i = 0; i < words.size(); ++i) {
        text += i == 0 ? "" : i + 1 == words.size() ? last : ", ";
        text += words[i];
    }
    return text;
}

// "/dev/video0 cannot be opened: Permission denied (is this user in the group video?)"
std::string OpenProblem(int error, const std::vector<std::string>& files) {
    const bool is_permission = error == EACCES || error == EPERM;
    return Join(files, " and ") + " cannot be opened: " + ErrnoText(error) +
           (is_permission ? " (is this user in the group video?)" : "");
}

std::string FormatProblem(const VideoDevice& device) {
    // The file comes first: a device chooses its name, and could begin it like another line.
    return device.file + " (" + SafeText(device.name) + ") cannot be used: it delivers only " +
           SafeText(Join(device.formats, " and "));
}

// A device that is plugged in again gets a new file, which has another inode.
std::string NodeText(const struct stat& status) {
    return std::to_string(major(status.st_rdev)) + ":" + std::to_string(minor(status.st_rdev)) + ", inode " +
           std::to_string(status.st_ino);
}

}  // namespace

std::string NodeOf(const std::string& file) {
    struct stat status {};
    return stat(file.c_str(), &status) == 0 ? NodeText(status) : "";
}

bool CallDevice(const UniqueFd& device, unsigned long request, void* argument) {
    int result = 0;
    do {
        result = ioctl(device.Get(), request, argument);
    } while (result < 0 && errno == EINTR);
    return result >= 0;
}

VideoDevice LookAtDevice(const std::string& file) {
    VideoDevice device;
    device.file = file;
    const UniqueFd opened(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    v4l2_capability capability{};
    if (!opened || !CallDevice(opened, VIDIOC_QUERYCAP, &capability)) {
        device.error = errno;
        return device;
    }
    struct stat status {};
    device.node = fstat(opened.Get(), &status) == 0 ? NodeText(status) : "";
    device.name = TextOf(capability.card);
    device.bus = TextOf(capability.bus_info);
    for (uint32_t index = 0; CapturesPictures(capability) && index < kMostFormats; ++index) {
        v4l2_fmtdesc format{};
        format.index = index;
        format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        if (!CallDevice(opened, VIDIOC_ENUM_FMT, &format)) {
            break;
        }
        device.formats.push_back(FourCcOf(format.pixelformat));
        device.is_usable = device.is_usable ||
                           std::ranges::find(kUsableFormats, format.pixelformat) != std::end(kUsableFormats);
    }
    return device;
}

std::vector<VideoDevice> LookAtDevices() {
    std::vector<VideoDevice> devices;
    for (int index = 0; index < kDeviceCount; ++index) {
        VideoDevice device = LookAtDevice("/dev/video" + std::to_string(index));
        const bool is_missing = device.error == ENOENT || device.error == ENODEV || device.error == ENXIO;
        if (!is_missing) {
            devices.push_back(std::move(device));
        }
    }
    return devices;
}

std::vector<std::string> DeviceProblems(const std::vector<VideoDevice>& devices) {
    std::map<int, std::vector<std::string>> closed;  // by errno
    for (const VideoDevice& device : devices) {
        if (device.error != 0) {
            closed[device.error].push_back(device.file);
        }
    }
    std::vector<std::string> problems;
    problems.reserve(closed.size() + devices.size());
    for (const auto& [error, files] : closed) {
        problems.push_back(OpenProblem(error, files));
    }
    for (const VideoDevice& device : devices) {
        if (!device.formats.empty() && !device.is_usable) {
            problems.push_back(FormatProblem(device));
        }
    }
    problems.resize(std::min(problems.size(), kMostProblems));
    return problems;
}

void CameraFiles::OnLogLine(std::string_view line) {
    constexpr std::string_view kStart = "[CameraEnumerator]  id: ";
    constexpr std::string_view kName = " name: ";
    constexpr std::string_view kBus = " bus:  ";
    constexpr std::string_view kFile = " file: ";
    constexpr std::string_view kSizes = " res: ";
    if (!line.starts_with(kStart)) {
        return;
    }
    line.remove_prefix(kStart.size());
    const size_t name = line.find(kName);
    const size_t file = line.rfind(kFile);
    const auto camera = ParseNumber<uint32_t>(line.substr(0, name));
    if (!camera || file == std::string_view::npos || file < name + kName.size()) {
        return;
    }
    const std::string_view rest = line.substr(file + kFile.size());
    const std::string_view shown = line.substr(name + kName.size(), file - name - kName.size());
    const MutexLock lock(m_mutex);
    if (*camera == 0) {
        m_cameras.clear();  // a new list begins
    }
    try {
        m_cameras[*camera] = {std::string(rest.substr(0, rest.find(kSizes))),
                              std::string(shown.substr(0, shown.rfind(kBus)))};
    } catch (const std::bad_alloc&) {
        // The module is not to be thrown at. No camera is known, so none is lent where there are rules.
        m_cameras.clear();
    }
}

ListedCamera CameraFiles::Camera(uint32_t camera) const {
    const MutexLock lock(m_mutex);
    const auto found = m_cameras.find(camera);
    return found != m_cameras.end() ? found->second : ListedCamera{};
}

}  // namespace zumod::host
