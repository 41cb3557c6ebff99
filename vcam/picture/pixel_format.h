// The pixel formats of a virtual camera, one table row each, and where the bytes of a picture lie in memory.
// Everything that depends on a format reads its row; a further format is one more row.
//
// Thread rule: values and pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace zumod::vcam {

struct PixelFormat {
    uint32_t fourcc;
    const char* description;  // as ENUM_FMT reports it
    // What each byte of a pixel holds in the first plane: Y luma; C chroma, U in even columns and V in odd
    // ones; B, G, R a full-range colour; X nothing, written as 255. Empty for a compressed format.
    std::string_view pixel = {};
    // Bytes from one chroma sample to the next in the 4:2:0 planes after the luma: 2 if U and V are
    // interleaved, 1 if each has its own plane, 0 if there are no such planes.
    uint32_t chroma_step = 0;
    bool v_first = false;  // V comes before U
    bool compressed = false;

    uint32_t PixelBytes() const { return static_cast<uint32_t>(pixel.size()); }
};

// All formats, in the order in which they are listed.
std::span<const PixelFormat> PixelFormats();
const PixelFormat* FindPixelFormat(uint32_t fourcc);
// "NV12" to its code and back.
std::optional<uint32_t> ParseFourcc(std::string_view text);
std::string FourccText(uint32_t fourcc);
// "NV12 NV21 ...": all formats.
std::string FormatNames();

// A picture of one format and size. Offsets are bytes from the start of the buffer; a chroma sample of a
// planar picture is at [u or v]_offset + row * chroma_stride + column * chroma_step.
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

// Raises a bytesperline below the minimum to the minimum.
PictureLayout LayOut(uint32_t fourcc, uint32_t width, uint32_t height, uint32_t bytesperline = 0);

}  // namespace zumod::vcam
