// The video devices of this machine, as the host itself sees them.
//
// The module numbers the cameras of a list, and looks for all of them again at each open. A number therefore
// names another camera once one before it is plugged in or removed. The module logs a line for each camera
// that it finds: "[CameraEnumerator]  id: 0 name: N bus:  B file: /dev/video0 res: 640x480". These lines are
// part of its contract, so they say which device file a number stood for when the module looked last.
// CameraFiles keeps that. Name and bus come from the device file itself: in the line a name could contain
// what looks like a bus. Only for the log the name is taken from the line. The last " file: " of a line is
// certain, because only sizes follow it.
//
// Thread rule: CameraFiles is [any thread]; the rest are functions without state, which may block as long as
// a driver does.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "common/mutex.h"
#include "common/unique_fd.h"

namespace zumod::host {

struct VideoDevice {
    std::string file;
    int error = 0;  // errno, if it does not open; the rest is empty then
    std::string name;
    std::string bus;
    std::vector<std::string> formats;  // FourCCs of the pictures that it captures; empty: not a camera
    bool is_usable = false;            // the module takes one of the formats
    std::string node = {};             // another device at the same file has another one; empty: not known

    bool operator==(const VideoDevice&) const = default;
};

// An ioctl that is repeated on EINTR. Returns false, with errno, if it fails.
bool CallDevice(const UniqueFd& device, unsigned long request, void* argument);

// As VideoDevice::node, without opening the file; empty if there is none.
std::string NodeOf(const std::string& file);

// The error is ENOENT or ENODEV if there is no such device.
VideoDevice LookAtDevice(const std::string& file);

// Looks at /dev/video0 to /dev/video63, where the module looks for cameras. Returns the files that exist.
std::vector<VideoDevice> LookAtDevices();

// What the user of a peer should know about cameras that the module cannot use. At most 8 texts.
std::vector<std::string> DeviceProblems(const std::vector<VideoDevice>& devices);

struct ListedCamera {
    std::string file;  // empty: the module has listed no such camera
    std::string name;  // only to be shown: what the device calls itself
};

// The cameras by their numbers in the module's last list.
class CameraFiles {
public:
    // Any line that a module logs.
    void OnLogLine(std::string_view line);

    ListedCamera Camera(uint32_t camera) const;

private:
    mutable Mutex m_mutex;
    // Written by the run thread, inside the module's log calls; read by the run thread and the main thread.
    std::map<uint32_t, ListedCamera> m_cameras ZU_GUARDED_BY(m_mutex);
};

}  // namespace zumod::host
