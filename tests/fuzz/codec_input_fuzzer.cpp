// Arbitrary records with arbitrary byte counts, one after another, into one real encoder. The encoder must
// refuse what does not fit, return a stream otherwise, and read no byte outside the picture. The input is a
// byte of policy flags, then for each picture the 20 bytes of its record and a byte count of 2 bytes, which
// keeps the pictures small.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "codec/picture_layout.h"
#include "codec/video_encoder.h"
#include "src/module/attach_runtime.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/stride_check.h"
#include "tests/support/doubles/encode_call.h"
#include "tests/support/doubles/quiet_host.h"

using namespace zumod;

namespace {

constexpr std::size_t kMostPictures = 4;

bool BeginsWithStartCode(const std::vector<uint8_t>& bytes) {
    return bytes.size() > 4 && bytes[0] == 0 && bytes[1] == 0 &&
           (bytes[2] == 1 || (bytes[2] == 0 && bytes[3] == 1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static testing::QuietHost host;
    AttachRuntime(&host);
    if (size == 0) {
        return 0;
    }
    EncoderPolicy policy;
    policy.fast_conversion = (data[0] & 1) != 0;
    policy.no_stream_header = (data[0] & 2) != 0;
    policy.file_record = (data[0] & 4) != 0;
    policy.source_rgb = (data[0] & 8) != 0;
    const CRefPtr_T<IVEncoder> encoder(new CVideoEncoder(policy));

    std::size_t at = 1;
    for (std::size_t picture = 0; picture < kMostPictures; ++picture) {
        VideoInputFormat record{};
        std::uint16_t byte_count = 0;
        if (size - at < sizeof record + sizeof byte_count) {
            break;
        }
        std::memcpy(&record, data + at, sizeof record);
        std::memcpy(&byte_count, data + at + sizeof record, sizeof byte_count);
        at += sizeof record + sizeof byte_count;

        // A heap block of exactly this size, so that a read past its end is detected.
        const std::unique_ptr<std::uint8_t[]> bytes(new std::uint8_t[byte_count]);
        for (std::size_t i = 0; i < byte_count; ++i) {
            bytes[i] = static_cast<std::uint8_t>(i * 7 + picture);
        }
        testing::EncodeCall call(bytes.get(), byte_count);
        FUZZ_CHECK(encoder->SetInputFormat(&record) == 1);
        const bool encoded = encoder->Encode(&call);
        FUZZ_CHECK(encoded == !call.output.empty());
        FUZZ_CHECK(!encoded || BeginsWithStartCode(call.output));
        PictureLayout layout{};
        const bool fits = LayOutPicture(record, byte_count, layout) == PictureError::kNone;
        FUZZ_CHECK(!fits || (layout.byte_count <= byte_count && IsStrideInBounds(layout, record)));
        if (!fits || (layout.format->is_rgb && !policy.source_rgb)) {
            FUZZ_CHECK(!encoded);
        }
    }
    return 0;
}
