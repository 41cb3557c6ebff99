#include "src/bridge/camera_client_linux.h"
#include "src/bridge/client_camera.h"

namespace zumod {

CRefPtr_T<IClientCamera> CreateClientCamera() {
    return CRefPtr_T<IClientCamera>(new CCameraClientLinux);
}

}  // namespace zumod
