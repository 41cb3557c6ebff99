#include "codec/video_decoder.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

#include "src/module/log.h"
#include "zumod/values.h"

extern "C" {
#include <libavutil/imgutils.h>
}

namespace zumod {
namespace {

// By VideoTargetFormat.
constexpr uint32_t kTargetCodes[] = {VideoFormatCode("I420"), VideoFormatCode("NV12"), kBgr32Code};
static_assert(kVideoTargetI420 == 0 && kVideoTargetNv12 == 1 && kVideoTargetBgr32 == 2);

bool IsTarget(uint32_t code) {
    return std::find(std::begin(kTargetCodes), std::end(kTargetCodes), code) != std::end(kTargetCodes);
}

// The frame buffer's layout as an encoder's record, for the same checks. `output.format` is a target.
VideoInputFormat RecordOf(const VideoOutputFormat& output) {
    const int bits = 8 * FindPixelFormat(output.format)->pixel_bytes;
    return {output.width, output.height, output.stride, bits, output.format};
}

// Called before libavcodec allocates anything for a new picture size. AVCodecContext::max_pixels would only
// limit the visible part, which a stream may crop from a much larger picture.
AVPixelFormat ChooseFormat(AVCodecContext* context, const AVPixelFormat* offered) {
    const int64_t limit = *static_cast<const int64_t*>(context->opaque);
    if (int64_t{context->coded_width} * context->coded_height > limit) {
        ZuModLog(kLogFailure, "[zu-codec] a picture of %dx%d has more than %lld pixels", context->coded_width,
                 context->coded_height, static_cast<long long>(limit));
        return AV_PIX_FMT_NONE;
    }
    return avcodec_default_get_format(context, offered);
}

// Whether libavcodec had to guess a part of the picture.
bool IsDamaged(const AVFrame& frame) {
    return frame.decode_error_flags != 0 || (frame.flags & AV_FRAME_FLAG_CORRUPT) != 0;
}

bool IsFullRange(const AVFrame& frame) {
    return frame.color_range == AVCOL_RANGE_JPEG || frame.format == AV_PIX_FMT_YUVJ420P;
}

}  // namespace

CVideoDecoder::CVideoDecoder(VideoTargetFormat target, uint8_t* screen_buffer)
    : m_screen_buffer(screen_buffer) {
    m_output.format = kTargetCodes[target];
}

bool CVideoDecoder::QueryInterface(const char* name, void** out) {
    if (name == nullptr || out == nullptr || !IsSameInterfaceName(name, kVideoDecoderName)) {
        return false;
    }
    *out = CRefPtr_T<IVDecoder>(this).Detach();
    return true;
}

bool CVideoDecoder::SetProperty(const char* key, IZUModData* value) {
    if (key == nullptr || value == nullptr) {
        return false;
    }
    if (std::strcmp(key, kPropertyHardware) == 0 && value->GetType() == kZUModDataBool) {
        try {
            m_hardware_value = CZUModData::FromBool(value->GetBool());
        } catch (const std::bad_alloc&) {
            return false;
        }
        return true;
    }
    if (std::strcmp(key, kPropertyMaxPixels) == 0 && value->GetType() == kZUModDataInt64) {
        return SetMaxPixels(value->GetInt64());
    }
    return false;
}

bool CVideoDecoder::SetMaxPixels(int64_t pixels) {
    if (pixels < 1 || pixels > kMostPixels) {
        return false;
    }
    m_max_pixels = pixels;
    return true;
}

IZUModData* CVideoDecoder::GetProperty(const char* key) {
    return key != nullptr && std::strcmp(key, kPropertyHardware) == 0 ? m_hardware_value.Get() : nullptr;
}

int CVideoDecoder::SetOutputFormat(const void* format) {
    if (format == nullptr) {
        return 0;
    }
    VideoOutputFormat output;
    std::memcpy(&output, format, sizeof output);
    const bool own_size = output.width == 0 && output.height == 0;
    const bool size_in_range = output.width > 0 && output.height > 0 && output.width <= kMaxPictureSide &&
                               output.height <= kMaxPictureSide;
    PictureLayout layout{};
    const bool known = IsTarget(output.format);
    const bool fits_screen =
        m_screen_buffer == nullptr ||
        (known && LayOutPictureAsRecorded(RecordOf(output), layout) == PictureError::kNone);
    if (!known || !(own_size || size_in_range) || !fits_screen) {
        ZuModLog(kLogIgnored, "[zu-codec] output format refused: %dx%d, stride %d, format 0x%08x",
                 output.width, output.height, output.stride, output.format);
        return 0;
    }
    m_output = output;
    return 1;
}

bool CVideoDecoder::Decode(IReference* args) {
    if (args == nullptr) {
        ZuModLog(kLogIgnored, "[zu-codec] decode without arguments");
        return false;
    }
    if (!EnsureOpen()) {
        ZuModLog(kLogFailure, "[zu-codec] the decoder does not open");
        return false;
    }
    // IReference is the primary base of IVDecArgs, so both interface pointers are the same address.
    auto& call = *static_cast<IVDecArgs*>(static_cast<void*>(args));
    if (const int error = Send(call); error < 0) {
        ZuModLog(kLogIgnored, "[zu-codec] decode fail: %s", AvErrorText(error).text);
        WaitForKeyFrame();
        return false;
    }
    return HandOutFinished(call) > 0;
}

bool CVideoDecoder::EnsureOpen() {
    if (m_context != nullptr) {
        return true;
    }
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
    AvOwner<AVCodecContext> context(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
    m_packet.reset(av_packet_alloc());
    m_frame.reset(av_frame_alloc());
    if (context == nullptr || m_packet == nullptr || m_frame == nullptr) {
        return false;
    }
    Silence(*context);
    context->thread_count = 1;
    context->flags |= AV_CODEC_FLAG_LOW_DELAY;
    context->opaque = &m_max_pixels;
    context->get_format = ChooseFormat;
    if (avcodec_open2(context.get(), codec, nullptr) < 0) {
        return false;
    }
    m_context = std::move(context);
    return true;
}

int CVideoDecoder::Send(IVDecArgs& args) {
    const uint64_t size = args.GetInputSize();
    if (size == 0) {
        return avcodec_send_packet(m_context.get(), nullptr);
    }
    const void* bytes = args.GetInputData();
    if (bytes == nullptr || size > INT32_MAX - AV_INPUT_BUFFER_PADDING_SIZE) {
        return AVERROR(EINVAL);
    }
    // A copy with padding, because the library reads a little past the end of its input.
    av_packet_unref(m_packet.get());
    if (const int error = av_new_packet(m_packet.get(), static_cast<int>(size)); error < 0) {
        return error;
    }
    std::memcpy(m_packet->data, bytes, size);
    const int error = avcodec_send_packet(m_context.get(), m_packet.get());
    av_packet_unref(m_packet.get());
    return error;
}

int CVideoDecoder::HandOutFinished(IVDecArgs& args) {
    int pictures = 0;
    int error = 0;
    while ((error = avcodec_receive_frame(m_context.get(), m_frame.get())) == 0) {
        if (IsDamaged(*m_frame)) {
            error = AVERROR_INVALIDDATA;
            break;
        }
        pictures += HandOut(args) ? 1 : 0;
        av_frame_unref(m_frame.get());
    }
    if (error == AVERROR_EOF) {
        avcodec_flush_buffers(m_context.get());
    } else if (error != AVERROR(EAGAIN)) {
        ZuModLog(kLogIgnored, "[zu-codec] decode fail: %s", AvErrorText(error).text);
        WaitForKeyFrame();
    }
    return pictures;
}

// The following pictures refer to the damaged one: none of them is whole before the next key frame.
void CVideoDecoder::WaitForKeyFrame() {
    av_frame_unref(m_frame.get());
    avcodec_flush_buffers(m_context.get());
}

bool CVideoDecoder::HandOut(IVDecArgs& args) {
    VideoOutputFormat output = m_output;
    if (output.width == 0) {
        output.width = m_frame->width;
        output.height = m_frame->height;
    }
    VideoDecodedPicture picture{};
    picture.width = output.width;
    picture.height = output.height;
    picture.format = output.format;
    picture.plane_count = FindPixelFormat(output.format)->plane_count;
    picture.key_frame = m_frame->key_frame;
    const bool as_decoded = m_screen_buffer == nullptr && output.format == kTargetCodes[kVideoTargetI420] &&
                            m_frame->format == AV_PIX_FMT_YUV420P && !IsFullRange(*m_frame) &&
                            output.width == m_frame->width && output.height == m_frame->height;
    if (as_decoded) {
        for (int i = 0; i < picture.plane_count; ++i) {
            picture.planes[i] = m_frame->data[i];
            picture.strides[i] = m_frame->linesize[i];
        }
    } else if (!Convert(output, picture)) {
        ZuModLog(kLogFailure, "[zu-codec] a decoded picture of %dx%d can not be converted", m_frame->width,
                 m_frame->height);
        return false;
    }
    args.OnPicture(&picture);
    return true;
}

bool CVideoDecoder::Convert(const VideoOutputFormat& output, VideoDecodedPicture& picture) {
    const AVPixelFormat format = FindPixelFormat(output.format)->av_format;
    m_converted.reset(av_frame_alloc());
    if (m_converted == nullptr) {
        return false;
    }
    m_converted->format = format;
    m_converted->width = output.width;
    m_converted->height = output.height;
    m_scaler.reset(sws_getCachedContext(m_scaler.release(), m_frame->width, m_frame->height,
                                        static_cast<AVPixelFormat>(m_frame->format), output.width,
                                        output.height, format, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (m_scaler == nullptr || av_frame_get_buffer(m_converted.get(), 0) < 0) {
        return false;
    }
    // Decoded pictures have the colours that the encoder takes: ITU-R BT.601, limited range.
    const bool is_709 = m_frame->colorspace == AVCOL_SPC_BT709;
    constexpr int kOne = 1 << 16;
    sws_setColorspaceDetails(m_scaler.get(), sws_getCoefficients(is_709 ? SWS_CS_ITU709 : SWS_CS_ITU601),
                             IsFullRange(*m_frame) ? 1 : 0, sws_getCoefficients(SWS_CS_ITU601), 0, 0, kOne,
                             kOne);
    if (sws_scale(m_scaler.get(), m_frame->data, m_frame->linesize, 0, m_frame->height, m_converted->data,
                  m_converted->linesize) <= 0) {
        return false;
    }
    for (int i = 0; i < picture.plane_count; ++i) {
        picture.planes[i] = m_converted->data[i];
        picture.strides[i] = m_converted->linesize[i];
    }
    return m_screen_buffer == nullptr || CopyToScreen(output, picture);
}

// The scaler may write a little past a row's end, so it never writes to the caller's memory.
bool CVideoDecoder::CopyToScreen(const VideoOutputFormat& output, VideoDecodedPicture& picture) {
    PictureLayout layout{};
    if (LayOutPictureAsRecorded(RecordOf(output), layout) != PictureError::kNone) {
        return false;
    }
    for (int i = 0; i < picture.plane_count; ++i) {
        const PicturePlane& plane = layout.planes[i];
        uint8_t* const screen = m_screen_buffer + plane.offset;
        av_image_copy_plane(screen, plane.stride, picture.planes[i], picture.strides[i], plane.row_bytes,
                            plane.row_count);
        picture.planes[i] = screen;
        picture.strides[i] = plane.stride;
    }
    return true;
}

}  // namespace zumod
