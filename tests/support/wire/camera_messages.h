// The messages of the camera channel as bytes, written without the product's code.
//
// Thread rule: pure functions and constants; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace zumod::testing {

using Bytes = std::vector<uint8_t>;

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes Number32(uint32_t number) {
    return {static_cast<uint8_t>(number), static_cast<uint8_t>(number >> 8),
            static_cast<uint8_t>(number >> 16), static_cast<uint8_t>(number >> 24)};
}

inline Bytes MessageBytes(uint8_t type, const Bytes& body) {
    return Number32(static_cast<uint32_t>(body.size())) + Bytes{type, 0, 0, 0} + body;
}

// ---- From the peer.

inline const Bytes kVersionRequestBytes = {0, 0, 0, 0, 0x0A, 0, 0, 0};
inline const Bytes kGetListBytes = {0, 0, 0, 0, 1, 0, 0, 0};

inline Bytes OpenBytes(uint32_t id, uint32_t width = 640, uint32_t height = 480, uint32_t fps = 30) {
    return MessageBytes(3, Number32(id) + Number32(width) + Number32(height) + Number32(fps));
}
inline Bytes SetFormatBytes(uint32_t id, uint32_t width = 1280, uint32_t height = 720, uint32_t fps = 25) {
    return MessageBytes(9, Number32(id) + Number32(width) + Number32(height) + Number32(fps));
}
// Property 5 to -2, automatic 1.
inline Bytes SetPropertyBytes(uint8_t id) {
    return {16, 0, 0, 0, 8, 0, 0, 0, id, 0, 0, 0, 5, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0};
}
inline Bytes CloseBytes(uint32_t id) {
    return MessageBytes(4, Number32(id));
}

// ---- From the host.

inline const Bytes kVersionReplyBytes = {4, 0, 0, 0, 0x0B, 0, 0, 0, 5, 0, 0, 0};
inline const Bytes kEmptyListBytes = {4, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0};

inline Bytes StateBytes(uint32_t state, uint32_t id) {
    return MessageBytes(5, Number32(state) + Number32(id));
}
inline Bytes FrameBytes(uint32_t id, const Bytes& encoded) {
    return MessageBytes(7, Number32(id) + Number32(static_cast<uint32_t>(encoded.size())) + encoded);
}
inline Bytes NoticeBytes(const std::string& text) {
    return MessageBytes(128, Bytes(text.begin(), text.end()));
}

inline Bytes InformationBytes(const std::string& text) {
    return MessageBytes(131, Bytes(text.begin(), text.end()));
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
    return MessageBytes(2, body);
}

}  // namespace zumod::testing
