// The messages of the camera channel that more than one test sends or expects, byte by byte.
#pragma once

#include "tests/support/doubles/scripted_stream.h"

namespace zumod::testing {

inline const Bytes kVersionRequestBytes = {0, 0, 0, 0, 0x0A, 0, 0, 0};
inline const Bytes kVersionReplyBytes = {4, 0, 0, 0, 0x0B, 0, 0, 0, 5, 0, 0, 0};
inline const Bytes kGetListBytes = {0, 0, 0, 0, 1, 0, 0, 0};
inline const Bytes kEmptyListBytes = {4, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0};

// 640x480 at 30 frames a second.
inline Bytes OpenBytes(uint8_t id) {
    return {16, 0, 0, 0, 3, 0, 0, 0, id, 0, 0, 0, 0x80, 2, 0, 0, 0xE0, 1, 0, 0, 30, 0, 0, 0};
}
// 1280x720 at 25 frames a second.
inline Bytes SetFormatBytes(uint8_t id) {
    return {16, 0, 0, 0, 9, 0, 0, 0, id, 0, 0, 0, 0, 5, 0, 0, 0xD0, 2, 0, 0, 25, 0, 0, 0};
}
// Property 5 to -2, automatic 1.
inline Bytes SetPropertyBytes(uint8_t id) {
    return {16, 0, 0, 0, 8, 0, 0, 0, id, 0, 0, 0, 5, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0};
}
inline Bytes CloseBytes(uint8_t id) {
    return {4, 0, 0, 0, 4, 0, 0, 0, id, 0, 0, 0};
}
inline Bytes StateBytes(uint8_t state, uint8_t id) {
    return {8, 0, 0, 0, 5, 0, 0, 0, state, 0, 0, 0, id, 0, 0, 0};
}
inline Bytes FrameBytes(uint8_t id, const Bytes& encoded) {
    const auto size = static_cast<uint8_t>(encoded.size());
    return Bytes{static_cast<uint8_t>(size + 8), 0, 0, 0, 7, 0, 0, 0, id, 0, 0, 0, size, 0, 0, 0} + encoded;
}

}  // namespace zumod::testing
