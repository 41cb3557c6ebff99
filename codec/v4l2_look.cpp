#include "codec/v4l2_look.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace zumod {
namespace {

bool IsOfTheMachine(const std::filesystem::directory_entry& device) {
    std::error_code error;
    const auto subsystem = std::filesystem::read_symlink(device.path() / "device/subsystem", error);
    return device.path().filename().string().starts_with("video") && !error && subsystem.filename() != "usb";
}

}  // namespace

V4l2Look& V4l2Look::OfProcess() {
    static V4l2Look look("/sys/class/video4linux");
    return look;
}

bool V4l2Look::HasDeviceOfTheMachine() const {
    std::error_code error;
    std::filesystem::directory_iterator devices(m_classes, error);
    for (; !error && devices != std::filesystem::directory_iterator(); devices.increment(error)) {
        if (IsOfTheMachine(*devices)) {
            return true;
        }
    }
    return false;
}

}  // namespace zumod
