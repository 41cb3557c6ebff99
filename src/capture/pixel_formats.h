// The pixel formats and frame sizes of a V4L2 device: which ones it delivers, which one a capture takes, and
// a format as text.
//
// Thread rule: [any thread]; nothing here keeps state.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace zumod {

struct SupportedFormat {
    int32_t width;
    int32_t height;
    // V4L2 FourCC.
    uint32_t pixel_format;

    bool operator==(const SupportedFormat&) const = default;
};

// Tries every candidate size in every pixel format of the device, size by size, and appends the device's
// answers. Always returns true; errno is then that of the last refused request.
bool enumSupportedFormats(int descriptor, std::vector<SupportedFormat>& entries);

// Returns the first planar 4:2:0 format of exactly this size, in the order of the entries; otherwise YUYV of
// this size. Never falls back to another size.
std::optional<uint32_t> ChoosePixelFormat(const std::vector<SupportedFormat>& entries, int32_t width,
                                          int32_t height);

// Whether a format that the device keeps after refusing a change can still be captured. This accepts BGR4,
// which ChoosePixelFormat never returns.
bool IsCapturable(uint32_t pixel_format);

// A FourCC as text, its four bytes unchanged even where they do not print.
class FourCcText {
public:
    explicit FourCcText(uint32_t code)
        : m_text{static_cast<char>(code & 0xFF), static_cast<char>(code >> 8 & 0xFF),
                 static_cast<char>(code >> 16 & 0xFF), static_cast<char>(code >> 24), '\0'} {}

    const char* Get() const { return m_text; }

private:
    char m_text[5];
};

}  // namespace zumod
