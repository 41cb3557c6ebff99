// Finds the cameras of this machine. Nothing is cached: every call probes the devices afresh.
//
// Thread rule: every operation is [any thread], also several at a time; there is no state and no lock.
#pragma once

#include <cstdint>
#include <vector>

#include "src/base/singleton.h"
#include "src/capture/camera_device_info.h"

namespace zumod {

class CameraEnumerator final : public CSingleton_T<CameraEnumerator> {
public:
    // The usable cameras in the order of their device files; the id of each is its position. A file that
    // cannot be opened is passed over in silence.
    std::vector<CameraDeviceInfo> getCameraList();

    // Fills `info` and returns true when a camera with that id is there now.
    bool getCameraInfo(uint32_t id, CameraDeviceInfo& info);
};

extern template class CSingleton_T<CameraEnumerator>;

}  // namespace zumod
