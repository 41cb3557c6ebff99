#include "peer/requests.h"

#include <cstring>

#include "zumod/camera_channel.h"

namespace zumod::peer {
namespace {

std::vector<uint8_t> Build(MessageType type, const void* body, uint32_t size) {
    const _MESSAGE_HEADER header{size, type, {}};
    std::vector<uint8_t> message(sizeof header + size);
    std::memcpy(message.data(), &header, sizeof header);
    if (size != 0) {
        std::memcpy(message.data() + sizeof header, body, size);
    }
    return message;
}

FormatRequest Format(uint32_t id, PictureSize size, int fps) {
    return {id, static_cast<int32_t>(size.width), static_cast<int32_t>(size.height), fps};
}

}  // namespace

std::vector<uint8_t> ListRequest() {
    return Build(kGetCameraList, nullptr, 0);
}

std::vector<uint8_t> VersionRequest() {
    return Build(kVersionRequest, nullptr, 0);
}

std::vector<uint8_t> OpenRequest(uint32_t id, PictureSize size, int fps) {
    const FormatRequest body = Format(id, size, fps);
    return Build(kOpenCamera, &body, sizeof body);
}

std::vector<uint8_t> FormatChange(uint32_t id, PictureSize size, int fps) {
    const FormatRequest body = Format(id, size, fps);
    return Build(kSetFormat, &body, sizeof body);
}

std::vector<uint8_t> CloseRequest(uint32_t id) {
    return Build(kCloseCamera, &id, sizeof id);
}

}  // namespace zumod::peer
