// The smallest codec module: H.264 without compression, so without a library. Every macroblock holds its
// pixels as they are (I_PCM), and every picture is a key frame. It takes NV12 only. A picture of 640x480 has
// 450 KiB, which a local peer can take; a product's codec compresses.
//
// The names of the syntax elements are those of ITU-T H.264, clauses 7.3.2.1, 7.3.2.2, 7.3.3 and 7.3.5.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "zumod/zumod.h"

namespace {

// A NAL unit that grows bit by bit.
class BitWriter {
public:
    void Bits(uint32_t value, int count) {
        while (count-- > 0) {
            if (m_used == 0) {
                m_bytes.push_back(0);
            }
            m_bytes.back() = static_cast<uint8_t>(m_bytes.back() | (((value >> count) & 1u) << (7 - m_used)));
            m_used = (m_used + 1) % 8;
        }
    }
    // ue(v): as many zeros as the binary number of value + 1 has digits after its first one, then the number.
    void Golomb(uint32_t value) {
        int digits = 0;
        while (((value + 1) >> (digits + 1)) != 0) {
            ++digits;
        }
        Bits(0, digits);
        Bits(value + 1, digits + 1);
    }
    void Align() { m_used = 0; }
    void Byte(uint8_t byte) { m_bytes.push_back(byte); }
    // rbsp_trailing_bits: a one, then zeros to the end of the byte.
    const std::vector<uint8_t>& Finish() {
        Bits(1, 1);
        Align();
        return m_bytes;
    }

private:
    std::vector<uint8_t> m_bytes;
    int m_used = 0;  // bits of the last byte; 0 means that it is full
};

// Appends a NAL unit in Annex B form: a start code, the header, and the payload, in which a byte of 3 keeps
// three bytes from looking like a start code.
void AppendUnit(std::vector<uint8_t>& stream, uint8_t header, const std::vector<uint8_t>& payload) {
    stream.insert(stream.end(), {0, 0, 0, 1, header});
    int zeros = 0;
    for (const uint8_t byte : payload) {
        if (zeros == 2 && byte <= 3) {
            stream.push_back(3);
            zeros = 0;
        }
        stream.push_back(byte);
        zeros = byte == 0 ? zeros + 1 : 0;
    }
}

constexpr uint8_t kSequenceParameters = 0x67;  // nal_ref_idc 3, nal_unit_type 7
constexpr uint8_t kPictureParameters = 0x68;   // nal_ref_idc 3, nal_unit_type 8
constexpr uint8_t kKeyPicture = 0x65;          // nal_ref_idc 3, nal_unit_type 5

uint32_t Macroblocks(int32_t pixels) {
    return static_cast<uint32_t>(pixels + 15) / 16;
}

void AppendParameters(std::vector<uint8_t>& stream, const zumod::VideoInputFormat& format) {
    const uint32_t columns = Macroblocks(format.width);
    const uint32_t rows = Macroblocks(format.height);
    BitWriter sequence;
    sequence.Bits(66, 8);    // profile_idc: Baseline
    sequence.Bits(0xC0, 8);  // constraint_set0_flag, constraint_set1_flag
    sequence.Bits(52, 8);    // level_idc: 5.2
    sequence.Golomb(0);      // seq_parameter_set_id
    sequence.Golomb(0);      // log2_max_frame_num_minus4
    sequence.Golomb(2);      // pic_order_cnt_type: decoded order is shown order
    sequence.Golomb(0);      // max_num_ref_frames
    sequence.Bits(0, 1);     // gaps_in_frame_num_value_allowed_flag
    sequence.Golomb(columns - 1);
    sequence.Golomb(rows - 1);
    sequence.Bits(1, 1);  // frame_mbs_only_flag
    sequence.Bits(1, 1);  // direct_8x8_inference_flag
    sequence.Bits(1, 1);  // frame_cropping_flag; offsets in units of two pixels
    sequence.Golomb(0);
    sequence.Golomb((16 * columns - static_cast<uint32_t>(format.width)) / 2);
    sequence.Golomb(0);
    sequence.Golomb((16 * rows - static_cast<uint32_t>(format.height)) / 2);
    sequence.Bits(0, 1);  // vui_parameters_present_flag
    AppendUnit(stream, kSequenceParameters, sequence.Finish());

    BitWriter picture;
    picture.Golomb(0);   // pic_parameter_set_id
    picture.Golomb(0);   // seq_parameter_set_id
    picture.Bits(0, 2);  // entropy_coding_mode_flag, bottom_field_pic_order_in_frame_present_flag
    picture.Golomb(0);   // num_slice_groups_minus1
    picture.Golomb(0);   // num_ref_idx_l0_default_active_minus1
    picture.Golomb(0);   // num_ref_idx_l1_default_active_minus1
    picture.Bits(0, 3);  // weighted_pred_flag, weighted_bipred_idc
    picture.Golomb(0);   // pic_init_qp_minus26
    picture.Golomb(0);   // pic_init_qs_minus26
    picture.Golomb(0);   // chroma_qp_index_offset
    picture.Bits(4, 3);  // deblocking_filter_control_present_flag, and two that are off
    AppendUnit(stream, kPictureParameters, picture.Finish());
}

// The pixel of a plane, or the nearest one: a macroblock may reach beyond the picture.
uint8_t Pixel(const uint8_t* plane, const zumod::VideoInputFormat& format, int32_t rows, int32_t x, int32_t y,
              int32_t step) {
    const int32_t last = format.width - step;
    const int32_t column = x <= last ? x : last + x % step;
    return plane[static_cast<size_t>(std::min(y, rows - 1)) * static_cast<size_t>(format.stride) +
                 static_cast<size_t>(column)];
}

void AppendPicture(std::vector<uint8_t>& stream, const zumod::VideoInputFormat& format, const uint8_t* luma,
                   bool odd) {
    const uint8_t* chroma = luma + static_cast<size_t>(format.stride) * static_cast<size_t>(format.height);
    BitWriter slice;
    slice.Golomb(0);            // first_mb_in_slice
    slice.Golomb(7);            // slice_type: all slices are I
    slice.Golomb(0);            // pic_parameter_set_id
    slice.Bits(0, 4);           // frame_num
    slice.Golomb(odd ? 1 : 0);  // idr_pic_id differs from that of the picture before
    slice.Bits(0, 2);           // no_output_of_prior_pics_flag, long_term_reference_flag
    slice.Golomb(0);            // slice_qp_delta
    slice.Golomb(1);            // disable_deblocking_filter_idc
    for (int32_t y = 0; y < format.height; y += 16) {
        for (int32_t x = 0; x < format.width; x += 16) {
            slice.Golomb(25);  // mb_type: I_PCM
            slice.Align();
            for (int32_t i = 0; i < 256; ++i) {
                slice.Byte(Pixel(luma, format, format.height, x + i % 16, y + i / 16, 1));
            }
            for (int32_t part = 0; part < 2; ++part) {
                for (int32_t i = 0; i < 64; ++i) {
                    slice.Byte(
                        Pixel(chroma, format, format.height / 2, x + 2 * (i % 8) + part, y / 2 + i / 8, 2));
                }
            }
        }
    }
    AppendUnit(stream, kKeyPicture, slice.Finish());
}

class Encoder final : public zumod::CCounted_T<zumod::IVEncoder> {
public:
    bool QueryInterface(const char*, void**) override { return false; }
    bool SetProperty(const char*, zumod::IZUModData*) override { return false; }
    zumod::IZUModData* GetProperty(const char*) override { return nullptr; }

    int SetInputFormat(const zumod::VideoInputFormat* format) override {
        m_format = *format;
        return 1;
    }

    bool Encode(zumod::IVEncArgs* args) override {
        // The numbers come from the driver: the picture must lie within the bytes that there are.
        constexpr int32_t kMost = 4096;
        if (m_format.format != zumod::VideoFormatCode("NV12") || m_format.width < 2 || m_format.height < 2 ||
            m_format.width > kMost || m_format.height > kMost || m_format.width % 2 != 0 ||
            m_format.height % 2 != 0 || m_format.stride < m_format.width || m_format.stride > 4 * kMost ||
            args->GetInputSize() <
                static_cast<uint64_t>(m_format.stride) * static_cast<uint64_t>(m_format.height) * 3 / 2) {
            return false;
        }
        std::vector<uint8_t> stream;
        AppendParameters(stream, m_format);
        AppendPicture(stream, m_format, static_cast<const uint8_t*>(args->GetInputData()), m_odd);
        m_odd = !m_odd;
        const auto size = static_cast<uint32_t>(stream.size());
        if (args->PrepareOutput(size) < size) {
            return false;
        }
        std::memcpy(args->GetOutputData(), stream.data(), size);
        return true;
    }

private:
    zumod::VideoInputFormat m_format{};
    bool m_odd = false;
};

// This codec logs nothing, so it keeps no host.
int AttachRuntime(zumod::IZUModRuntime* host) {
    return host != nullptr ? 1 : 0;
}
void DetachRuntime() {}

int Create(zumod::IZUModCreatePolicy* policy, zumod::IZUModInterface** out) {
    if (policy == nullptr || out == nullptr ||
        !zumod::IsSameInterfaceName(zumod::PolicyText(*policy, zumod::kPolicyInterfaceName),
                                    zumod::kVideoEncoderName) ||
        zumod::PolicyInteger(*policy, zumod::kPolicyVersion) >> 48 != zumod::kCodecInterfaceVersion >> 48 ||
        zumod::PolicyInteger(*policy, zumod::kPolicyImageType) != zumod::kImageTypeH264) {
        return 0;
    }
    zumod::StoreInterface<zumod::IVEncoder>(new Encoder, out);
    return 1;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) const zumod::ZUModDescriptor* zumod_get_entrypoint() {
    static const zumod::ZUModDescriptor descriptor = {zumod::kCodecInterfaceVersion,
                                                      zumod::kCodecModuleName,
                                                      AttachRuntime,
                                                      DetachRuntime,
                                                      Create,
                                                      "example"};
    return &descriptor;
}
