// The matcher of the camera channel: headers of 8 bytes, at most two of them, handlers that get the buffer
// with the whole message.
#pragma once

#include "src/base/buffer.h"
#include "src/plugin/message_separation.h"
#include "zumod/camera_channel.h"

namespace zumod {

using CameraMessageSeparation = CMessageSeparation_T<_MESSAGE_HEADER, IBuffer*, 2, unsigned long, bool>;

}  // namespace zumod
