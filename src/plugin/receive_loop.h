// The plugin's receiving side: cuts the stream into messages and hands each to the matcher.
#pragma once

#include "src/base/mem_alloctor.h"
#include "src/plugin/camera_message_separation.h"
#include "zumod/channel_stream.h"

namespace zumod {

// [run thread]. Returns when a read fails, or when there is no memory for a message. A message that is
// unknown or malformed is dropped without a word to the peer.
void ServePeer(IChannelStream& stream, IMemAlloctor& alloctor, CameraMessageSeparation& handlers);

}  // namespace zumod
