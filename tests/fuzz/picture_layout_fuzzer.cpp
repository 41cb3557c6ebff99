// An arbitrary record and byte count: a layout that is accepted must lie within the bytes, without
// overlapping planes. The input is the 20 bytes of the record and a byte count of 8 bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "codec/picture_layout.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/stride_check.h"

using namespace zumod;

namespace {

uint64_t EndOf(const PicturePlane& plane) {
    FUZZ_CHECK(plane.stride > 0 && plane.row_bytes > 0 && plane.row_count > 0);
    FUZZ_CHECK(plane.row_bytes <= plane.stride);
    return plane.offset + static_cast<uint64_t>(plane.stride) * static_cast<uint64_t>(plane.row_count);
}

void CheckLayout(const PictureLayout& layout, const VideoInputFormat& record) {
    FUZZ_CHECK(layout.width == record.width && layout.height == record.height);
    FUZZ_CHECK(layout.format->plane_count >= 1 && layout.format->plane_count <= 3);
    FUZZ_CHECK(layout.byte_count <= INT32_MAX);
    for (int i = 0; i < layout.format->plane_count; ++i) {
        const PicturePlane& plane = layout.planes[i];
        FUZZ_CHECK(EndOf(plane) <= layout.byte_count);
        for (int j = 0; j < i; ++j) {
            const PicturePlane& other = layout.planes[j];
            FUZZ_CHECK(EndOf(other) <= plane.offset || EndOf(plane) <= other.offset);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    VideoInputFormat record{};
    std::uint64_t byte_count = 0;
    if (size < sizeof record + sizeof byte_count) {
        return 0;
    }
    std::memcpy(&record, data, sizeof record);
    std::memcpy(&byte_count, data + sizeof record, sizeof byte_count);

    PictureLayout layout{};
    const PictureError error = LayOutPicture(record, byte_count, layout);
    FUZZ_CHECK(*PictureErrorText(error) != '\0');
    if (error == PictureError::kNone) {
        CheckLayout(layout, record);
        FUZZ_CHECK(layout.byte_count <= byte_count);
        FUZZ_CHECK(IsStrideInBounds(layout, record));
    }
    PictureLayout recorded{};
    if (LayOutPictureAsRecorded(record, recorded) == PictureError::kNone) {
        CheckLayout(recorded, record);
        FUZZ_CHECK(recorded.planes[0].stride == record.stride);
        // An exact fit for the recorded stride takes precedence over any other stride.
        FUZZ_CHECK(LayOutPicture(record, recorded.byte_count, layout) == PictureError::kNone);
        FUZZ_CHECK(layout.planes[0].stride == record.stride);
    }
    return 0;
}
