// Messages of a host of any length, from their parts.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/wire/camera_messages.h"

namespace zumod::testing {

inline Bytes Number32(uint32_t number) {
    return {static_cast<uint8_t>(number), static_cast<uint8_t>(number >> 8),
            static_cast<uint8_t>(number >> 16), static_cast<uint8_t>(number >> 24)};
}

inline Bytes HostMessage(uint8_t type, const Bytes& body) {
    return Number32(static_cast<uint32_t>(body.size())) + Bytes{type, 0, 0, 0} + body;
}

// A frame of any number of bytes.
inline Bytes LongFrameBytes(uint32_t id, const Bytes& encoded) {
    return HostMessage(7, Number32(id) + Number32(static_cast<uint32_t>(encoded.size())) + encoded);
}

inline Bytes NoticeBytes(const std::string& text) {
    return HostMessage(128, Bytes(text.begin(), text.end()));
}

using Sizes = std::vector<std::pair<uint32_t, uint32_t>>;

// One camera's part of a list: the record of 1304 bytes, then its sizes.
inline Bytes CameraBytes(uint32_t id, const std::string& name, const Sizes& sizes) {
    Bytes record(1304);
    record[0] = static_cast<uint8_t>(id);
    for (size_t i = 0; i < name.size() && i < 516; ++i) {
        record[6 + i] = record[526 + i] = static_cast<uint8_t>(name[i]);
    }
    record[1300] = static_cast<uint8_t>(sizes.size());
    for (const auto& [width, height] : sizes) {
        record = record + Number32(width) + Number32(height);
    }
    return record;
}

inline Bytes ListBytes(const std::vector<Bytes>& cameras) {
    Bytes body = Number32(static_cast<uint32_t>(cameras.size()));
    for (const Bytes& camera : cameras) {
        body = body + camera;
    }
    return HostMessage(2, body);
}

}  // namespace zumod::testing
