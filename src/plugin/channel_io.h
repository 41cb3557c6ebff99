// Reading messages from the host's stream and writing bytes to it.
//
// Thread rule: ServePeer is [run thread]; WriteAll is [run thread, send thread].
#pragma once

#include <cstdint>

#include "src/base/mem_alloctor.h"
#include "src/plugin/camera_protocol.h"
#include "zumod/channel_stream.h"

namespace zumod {

// Passes each message to `handlers`, with the buffer that holds the whole message as context. Returns when a
// read fails or memory for a message's bytes runs out. Throws OutOfMemory if there is none for its buffer
// object, and what the stream and the handlers throw. A message that no handler accepts is dropped.
void ServePeer(IChannelStream& stream, IMemAlloctor& alloctor, CameraMessageSeparation& handlers);

// Repeats the stream's Write until all bytes are written. Returns false at the first write that fails.
bool WriteAll(IChannelStream& stream, const void* bytes, uint64_t size);

}  // namespace zumod
