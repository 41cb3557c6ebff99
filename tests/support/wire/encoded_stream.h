// A stream as a camera's: the virtual cameras' pictures with their stamps, encoded by the codec module.
//
// Thread rule: one thread at a time.
#pragma once

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/doubles/codec_calls.h"
#include "vcam/picture/pattern.h"
#include "vcam/picture/pixel_format.h"

namespace zumod::testing {

class EncodedStream {
public:
    EncodedStream(uint32_t width, uint32_t height)
        : m_layout(vcam::LayOut(V4L2_PIX_FMT_YUV420, width, height)),
          m_pattern(m_layout, "Test"),
          m_bytes(m_layout.sizeimage),
          m_record{static_cast<int32_t>(width), static_cast<int32_t>(height), static_cast<int32_t>(width), 8,
                   VideoFormatCode("I420")},
          m_policy(EncoderPolicyFor(m_ledger)),
          m_encoder(m_codec.Create<IVEncoder>(*m_policy)) {
        EXPECT_NE(m_encoder, nullptr);
    }

    // The first one is a key frame with the parameter sets.
    std::vector<uint8_t> Next(uint32_t counter, uint64_t time_us) {
        m_pattern.Paint(m_bytes.data(), {counter, time_us});
        return Encoded(*m_encoder, m_record, m_bytes);
    }

private:
    CodecModule m_codec{ZU_MODULE_DIR "/zu-codec.so"};
    ReferenceLedger m_ledger;
    const vcam::PictureLayout m_layout;
    const vcam::Pattern m_pattern;
    std::vector<uint8_t> m_bytes;
    const VideoInputFormat m_record;
    CRefPtr_T<CountedPolicy> m_policy;
    CRefPtr_T<IVEncoder> m_encoder;
};

}  // namespace zumod::testing
