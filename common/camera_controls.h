// The controls of a camera that a peer can read and change: the numbers on the channel, the names that people
// type, and the V4L2 controls behind them.
//
// Thread rule: constants and pure functions; any thread.
#pragma once

#include <linux/videodev2.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <string_view>

namespace zumod {

// The fields in the order of a row.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct CameraControl {
    int32_t property;  // the number in a set-property request
    std::string_view name;
    uint32_t id;
    uint32_t automatic_id = 0;  // of the control that makes the camera choose the value; 0: there is none
    // Values of that control. The first one of `on` that the camera offers is set; any but `off` counts as
    // on.
    std::array<int32_t, 2> on = {1, 1};
    int32_t off = 0;
};

// docs/protocol.md has the same table. A number keeps its meaning.
inline constexpr CameraControl kControlTable[] = {
    {1, "brightness", V4L2_CID_BRIGHTNESS, V4L2_CID_AUTOBRIGHTNESS},
    {2, "contrast", V4L2_CID_CONTRAST},
    {3, "saturation", V4L2_CID_SATURATION},
    {4, "hue", V4L2_CID_HUE, V4L2_CID_HUE_AUTO},
    {5, "gamma", V4L2_CID_GAMMA},
    {6, "sharpness", V4L2_CID_SHARPNESS},
    {7, "backlight", V4L2_CID_BACKLIGHT_COMPENSATION},
    {8, "gain", V4L2_CID_GAIN, V4L2_CID_AUTOGAIN},
    {9, "white-balance", V4L2_CID_WHITE_BALANCE_TEMPERATURE, V4L2_CID_AUTO_WHITE_BALANCE},
    {10,
     "exposure",
     V4L2_CID_EXPOSURE_ABSOLUTE,
     V4L2_CID_EXPOSURE_AUTO,
     {V4L2_EXPOSURE_AUTO, V4L2_EXPOSURE_APERTURE_PRIORITY},
     V4L2_EXPOSURE_MANUAL},
    {11, "focus", V4L2_CID_FOCUS_ABSOLUTE, V4L2_CID_FOCUS_AUTO},
    {12, "zoom", V4L2_CID_ZOOM_ABSOLUTE},
    {13, "pan", V4L2_CID_PAN_ABSOLUTE},
    {14, "tilt", V4L2_CID_TILT_ABSOLUTE},
};

// Null for a number that is not in the table.
inline const CameraControl* FindControl(int32_t property) {
    const auto* found = std::ranges::find(kControlTable, property, &CameraControl::property);
    return found != std::end(kControlTable) ? found : nullptr;
}

}  // namespace zumod
