// The cameras of Linux: CCameraClientLinux and the V4L2 devices.
#include "src/bridge/camera_client.h"
#include "src/bridge/camera_client_linux.h"
#include "src/capture/camera_enumerator.h"

namespace zumod {

CRefPtr_T<IClientCamera> CreateClientCamera() {
    return CRefPtr_T<IClientCamera>(new CCameraClientLinux);
}

std::vector<CameraDeviceInfo> ListCameras() {
    return CameraEnumerator::GetInstance()->getCameraList();
}

}  // namespace zumod
