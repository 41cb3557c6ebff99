// Enumeration of the cameras of this computer. Nothing is cached: every call probes all device files.
//
// Thread rule: [any thread], concurrently too; there is no state and no lock.
#pragma once

#include <cstdint>
#include <vector>

#include "src/base/singleton.h"
#include "src/capture/camera_device_info.h"

namespace zumod {

class CameraEnumerator final : public CSingleton_T<CameraEnumerator> {
public:
    // Returns the usable cameras in device file order; the id of each is its position. A file that cannot be
    // opened is skipped without a log line.
    std::vector<CameraDeviceInfo> getCameraList();

    // Fills `info` and returns true if a camera with this id is present now.
    bool getCameraInfo(uint32_t id, CameraDeviceInfo& info);
};

extern template class CSingleton_T<CameraEnumerator>;

}  // namespace zumod
