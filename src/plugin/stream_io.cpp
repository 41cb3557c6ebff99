#include "src/plugin/stream_io.h"

#include <algorithm>

namespace zumod {

bool WriteAll(IChannelStream& stream, const void* bytes, uint64_t size) {
    const auto* next = static_cast<const uint8_t*>(bytes);
    while (size != 0) {
        unsigned long done = 0;
        if (stream.Write(next, size, &done) != 0) {
            return false;
        }
        done = std::min(done, size);
        next += done;
        size -= done;
    }
    return true;
}

}  // namespace zumod
