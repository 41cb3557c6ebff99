#include "module/factory.h"

namespace zumod {

int camera_client_create(IZUModCreatePolicy* /*props*/, IZUModInterface** /*out*/) {
    return 0;
}

}  // namespace zumod
