// Reading and writing a whole range of bytes on a stream that may do less in one call.
#pragma once

#include <cstdint>

#include "zumod/channel_stream.h"

namespace zumod {

// Repeats the stream's Write until all bytes are written; false at the first write that fails.
bool WriteAll(IChannelStream& stream, const void* bytes, uint64_t size);

}  // namespace zumod
