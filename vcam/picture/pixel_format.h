// The pixel formats a virtual camera can give, and where the bytes of a picture lie in each. Values; any
// thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zumod::vcam {

struct PixelFormat {
    uint32_t fourcc;
    const char* description;  // as ENUM_FMT names it
    bool compressed;
};

// All of them, in the order the documentation lists them.
const std::vector<PixelFormat>& PixelFormats();
const PixelFormat* FindPixelFormat(uint32_t fourcc);
// "NV12" to its code and back.
std::optional<uint32_t> ParseFourcc(std::string_view text);
std::string FourccText(uint32_t fourcc);

// A picture of one format and size. Offsets are bytes from the start of the buffer; a chroma sample of a
// planar picture lies at chroma_offset + row * chroma_stride + column * chroma_step.
struct PictureLayout {
    uint32_t fourcc = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t bytesperline = 0;  // 0 for a compressed picture
    uint32_t sizeimage = 0;

    size_t u_offset = 0;
    size_t v_offset = 0;
    uint32_t chroma_stride = 0;
    uint32_t chroma_step = 0;  // 0 for a packed or compressed picture

    bool operator==(const PictureLayout&) const = default;
};

// A bytesperline below the least possible is raised to it.
PictureLayout LayOut(uint32_t fourcc, uint32_t width, uint32_t height, uint32_t bytesperline = 0);

}  // namespace zumod::vcam
