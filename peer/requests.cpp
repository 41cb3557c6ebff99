#include "peer/requests.h"

#include "zumod/camera_channel.h"

namespace zumod::peer {
namespace {

std::vector<uint8_t> Request(MessageType type) {
    std::vector<uint8_t> message(sizeof(_MESSAGE_HEADER));
    WriteHeader(message.data(), type, 0);
    return message;
}

template <class Body>
std::vector<uint8_t> Request(MessageType type, const Body& body) {
    std::vector<uint8_t> message(sizeof(_MESSAGE_HEADER) + sizeof body);
    WriteRecord(WriteHeader(message.data(), type, sizeof body), body);
    return message;
}

FormatRequest Format(uint32_t id, PictureSize size, int fps) {
    return {id, static_cast<int32_t>(size.width), static_cast<int32_t>(size.height), fps};
}

}  // namespace

std::vector<uint8_t> ListRequest() {
    return Request(kGetCameraList);
}

std::vector<uint8_t> VersionRequest() {
    return Request(kVersionRequest);
}

std::vector<uint8_t> OpenRequest(uint32_t id, PictureSize size, int fps) {
    return Request(kOpenCamera, Format(id, size, fps));
}

std::vector<uint8_t> SetFormatRequest(uint32_t id, PictureSize size, int fps) {
    return Request(kSetFormat, Format(id, size, fps));
}

std::vector<uint8_t> CloseRequest(uint32_t id) {
    return Request(kCloseCamera, id);
}

}  // namespace zumod::peer
