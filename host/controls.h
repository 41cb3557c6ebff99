// The controls of a camera, read and set on a separate descriptor of its device file.
//
// The module ignores properties, so the host applies them. V4L2 lets any descriptor of a device read and set
// controls while another one streams. A peer only names a control by its number and a camera by its id:
//
// - The number must be in the table of common/camera_controls.h, and the camera must have the control.
// - The value must be inside the range that the driver states, otherwise nothing is written.
// - The device file is the one that the module gives this id: FindCameraDevice repeats the module's scan. The
//   broker keeps the file of an open camera, because ids move when another camera is unplugged.
//
// The calls may block for as long as the driver does. PluginStream makes them on the plugin's run thread,
// between two requests, as the plugin makes its own. So the answers to a peer keep the order of its requests,
// and neither the main thread nor a frame waits. Only the end of a session waits for them. A report therefore
// begins no call after three seconds; it then lacks the controls that are left.
//
// Thread rule: no shared state; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zumod/camera_channel.h"

namespace zumod::host {

// Work for the run thread that only the host does.
struct DeviceTask {
    enum class Kind {
        kFindDevice,  // of a camera that is about to be opened, or to get another format
        kReportControls,
        kSetControl,
    };
    Kind kind;
    uint32_t camera;
    std::string device;        // of a camera that is open; otherwise empty: it is looked for
    PropertyRequest change{};  // for kSetControl
};

struct DeviceResult {
    std::string device;            // "/dev/videoN"; empty if there is none
    std::vector<uint8_t> message;  // kCameraControls, for kReportControls
    std::string change;            // what was set, or why nothing was
    bool failed = false;           // nothing was set
};

DeviceResult Perform(const DeviceTask& task);

// The device file of the camera with this id in the module's list; empty if there is none.
std::string FindCameraDevice(uint32_t id);

}  // namespace zumod::host
