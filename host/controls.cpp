#include "host/controls.h"

#include <fcntl.h>
#include <linux/videodev2.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <utility>

#include "common/camera_controls.h"
#include "common/error.h"
#include "common/unique_fd.h"
#include "host/video_devices.h"

namespace zumod::host {
namespace {

constexpr int kDeviceFiles = 64;
constexpr auto kReportTime = std::chrono::seconds(3);
constexpr uint32_t kMostFormats = 1024;  // of a driver that never ends its list

// The sizes that the module tries. A device that takes none of them has no id.
constexpr std::pair<uint32_t, uint32_t> kTriedSizes[] = {
    {128, 96},  {160, 120},  {176, 144},  {320, 240},  {352, 288},  {640, 480},  {704, 576},   {800, 600},
    {960, 720}, {1024, 768}, {1152, 864}, {1280, 600}, {1280, 720}, {1440, 900}, {1440, 1080}, {1920, 1080},
};

bool Takes(const UniqueFd& device, uint32_t pixel_format) {
    for (const auto& [width, height] : kTriedSizes) {
        v4l2_format format{};
        format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        format.fmt.pix.width = width;
        format.fmt.pix.height = height;
        format.fmt.pix.pixelformat = pixel_format;
        if (CallDevice(device, VIDIOC_TRY_FMT, &format) &&
            (format.fmt.pix.width == width || format.fmt.pix.height == height)) {
            return true;
        }
    }
    return false;
}

// Whether the module lists this device.
bool IsCamera(const UniqueFd& device) {
    v4l2_capability capability{};
    if (!CallDevice(device, VIDIOC_QUERYCAP, &capability)) {
        return false;
    }
    v4l2_fmtdesc format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (; format.index < kMostFormats && CallDevice(device, VIDIOC_ENUM_FMT, &format); ++format.index) {
        if (Takes(device, format.pixelformat)) {
            return true;
        }
    }
    return false;
}

UniqueFd OpenDevice(const std::string& file, int mode) {
    return UniqueFd(open(file.c_str(), mode | O_NONBLOCK | O_CLOEXEC));
}

// What the driver says about a control whose values are plain numbers.
std::optional<v4l2_queryctrl> Query(const UniqueFd& device, uint32_t id) {
    v4l2_queryctrl query{};
    query.id = id;
    if (id == 0 || !CallDevice(device, VIDIOC_QUERYCTRL, &query) ||
        (query.flags & V4L2_CTRL_FLAG_DISABLED) != 0) {
        return std::nullopt;
    }
    switch (query.type) {
        case V4L2_CTRL_TYPE_INTEGER:
        case V4L2_CTRL_TYPE_BOOLEAN:
        case V4L2_CTRL_TYPE_MENU:
        case V4L2_CTRL_TYPE_INTEGER_MENU:
            return query;
        default:
            return std::nullopt;
    }
}

std::optional<int32_t> ValueOf(const UniqueFd& device, uint32_t id) {
    v4l2_control control{id, 0};
    return CallDevice(device, VIDIOC_G_CTRL, &control) ? std::optional(control.value) : std::nullopt;
}

bool SetValue(const UniqueFd& device, uint32_t id, int32_t value) {
    v4l2_control control{id, value};
    return CallDevice(device, VIDIOC_S_CTRL, &control);
}

// The value that makes the camera choose by itself, if it can.
std::optional<int32_t> AutomaticValue(const UniqueFd& device, const CameraControl& control) {
    const auto query = Query(device, control.automatic_id);
    if (!query || (query->flags & V4L2_CTRL_FLAG_READ_ONLY) != 0) {
        return std::nullopt;
    }
    for (const int32_t value : control.on) {
        v4l2_querymenu item{};
        item.id = control.automatic_id;
        item.index = static_cast<uint32_t>(value);
        if (value >= query->minimum && value <= query->maximum &&
            (query->type != V4L2_CTRL_TYPE_MENU || CallDevice(device, VIDIOC_QUERYMENU, &item))) {
            return value;
        }
    }
    return std::nullopt;
}

std::optional<ControlRecord> ReadControl(const UniqueFd& device, const CameraControl& control) {
    const auto query = Query(device, control.id);
    const auto value = query ? ValueOf(device, control.id) : std::nullopt;
    if (!value) {
        return std::nullopt;
    }
    uint32_t flags = 0;
    if ((query->flags & V4L2_CTRL_FLAG_READ_ONLY) != 0) {
        flags |= kIsReadOnly;
    }
    if (AutomaticValue(device, control)) {
        flags |= kHasAutomatic;
        if (const auto now = ValueOf(device, control.automatic_id); now && *now != control.off) {
            flags |= kIsAutomatic;
        }
    }
    return ControlRecord{control.property,     *value, query->minimum, query->maximum, query->step,
                         query->default_value, flags};
}

std::vector<uint8_t> ReportControls(uint32_t camera, const std::string& file) {
    const UniqueFd device = OpenDevice(file, O_RDWR);
    std::vector<ControlRecord> controls;
    const auto end = std::chrono::steady_clock::now() + kReportTime;
    for (const CameraControl& control : kControlTable) {
        if (std::chrono::steady_clock::now() >= end) {
            break;
        }
        if (const auto record = device ? ReadControl(device, control) : std::nullopt) {
            controls.push_back(*record);
        }
    }
    const size_t size = sizeof(ControlsHeader) + controls.size() * sizeof(ControlRecord);
    std::vector<uint8_t> message(sizeof(_MESSAGE_HEADER) + size);
    uint8_t* next = WriteHeader(message.data(), kCameraControls, static_cast<uint32_t>(size));
    next = WriteRecord(next, ControlsHeader{camera, device ? kControlsRead : kControlsFailed});
    for (const ControlRecord& control : controls) {
        next = WriteRecord(next, control);
    }
    return message;
}

Expected<std::string> SetControl(const std::string& file, const CameraControl& control,
                                 const PropertyRequest& change) {
    const UniqueFd device = OpenDevice(file, O_RDWR);
    if (!device) {
        return Fail("the camera cannot be opened: " + ErrnoText(errno));
    }
    const std::optional<v4l2_queryctrl> query = Query(device, control.id);
    if (!query) {
        return Fail("the camera does not have it");
    }
    const std::optional<int32_t> automatic = AutomaticValue(device, control);
    if (change.automatic != 0) {
        if (!automatic) {
            return Fail("it has no automatic");
        }
        return SetValue(device, control.automatic_id, *automatic) ? Expected<std::string>("automatic")
                                                                  : Fail(ErrnoText(errno));
    }
    const std::string value = std::to_string(change.value);
    if (change.value < query->minimum || change.value > query->maximum) {
        return Fail(value + " is not in " + std::to_string(query->minimum) + " to " +
                    std::to_string(query->maximum));
    }
    if ((query->flags & V4L2_CTRL_FLAG_READ_ONLY) != 0) {
        return Fail("it is read-only");
    }
    // A driver may refuse a value while the automatic is on.
    const auto before = automatic ? ValueOf(device, control.automatic_id) : std::nullopt;
    if (automatic && !SetValue(device, control.automatic_id, control.off)) {
        return Fail(ErrnoText(errno));
    }
    if (!SetValue(device, control.id, change.value)) {
        const int error = errno;
        if (before) {
            SetValue(device, control.automatic_id, *before);
        }
        return Fail(ErrnoText(error));
    }
    return value;
}

}  // namespace

std::string FindCameraDevice(uint32_t id) {
    for (int number = 0; number < kDeviceFiles; ++number) {
        std::string file = "/dev/video" + std::to_string(number);
        const UniqueFd device = OpenDevice(file, O_RDONLY);
        if (device && IsCamera(device) && id-- == 0) {
            return file;
        }
    }
    return {};
}

DeviceResult Perform(const DeviceTask& task) {
    DeviceResult result;
    result.device = task.device.empty() ? FindCameraDevice(task.camera) : task.device;
    if (task.kind == DeviceTask::Kind::kReportControls) {
        result.message = ReportControls(task.camera, result.device);
    }
    const CameraControl* const control = FindControl(task.change.property);
    if (task.kind == DeviceTask::Kind::kSetControl && control != nullptr) {
        const auto set = SetControl(result.device, *control, task.change);
        result.failed = !set;
        result.change = "camera " + std::to_string(task.camera) + ": " + std::string(control->name);
        result.change += set ? " is now " + *set : " cannot be set: " + set.error().text;
    }
    return result;
}

}  // namespace zumod::host
