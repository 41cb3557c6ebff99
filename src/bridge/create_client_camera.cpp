#include "bridge/client_camera.h"

namespace zumod {

CRefPtr_T<IClientCamera> CreateClientCamera() {
    return {};
}

}  // namespace zumod
