// The 8 bytes in front of every message on the channel stream.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zumod {

// In host byte order, which is little-endian on the target.
struct _MESSAGE_HEADER {
    uint32_t length;      // bytes that follow this header
    uint8_t type;         // MessageType
    uint8_t reserved[3];  // written as zero, ignored on receipt
};

static_assert(sizeof(_MESSAGE_HEADER) == 8);
static_assert(offsetof(_MESSAGE_HEADER, length) == 0);
static_assert(offsetof(_MESSAGE_HEADER, type) == 4);

}  // namespace zumod
