// Writing a whole range of bytes to a stream that may take less in one call.
//
// Thread rule: [run thread, send thread].
#pragma once

#include <cstdint>

#include "zumod/channel_stream.h"

namespace zumod {

// Repeats the stream's Write until all bytes are written; false at the first write that fails.
bool WriteAll(IChannelStream& stream, const void* bytes, uint64_t size);

}  // namespace zumod
