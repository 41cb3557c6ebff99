#include "peer/picture_writer.h"

#include <strings.h>

#include <string_view>

#include "common/av_objects.h"

namespace zumod::peer {

struct PictureFormat {
    const char* ending;
    AVCodecID codec;
    AVPixelFormat pixels;
    int quality;  // of libavcodec: 1 is the best; 0 for a format without loss
};

namespace {

constexpr PictureFormat kFormats[] = {
    {".png", AV_CODEC_ID_PNG, AV_PIX_FMT_RGB24, 0},
    {".jpg", AV_CODEC_ID_MJPEG, AV_PIX_FMT_YUVJ420P, 3},
    {".jpeg", AV_CODEC_ID_MJPEG, AV_PIX_FMT_YUVJ420P, 3},
};

tl::unexpected<Error> FailStep(const char* step, int error = AVERROR(ENOMEM)) {
    return Fail("the picture cannot be written: " + std::string(step) + ": " + AvErrorText(error).text);
}

Expected<AvOwner<AVFrame>> Convert(const VideoDecodedPicture& picture, const PictureFormat& format) {
    AvOwner<AVFrame> frame(av_frame_alloc());
    if (frame == nullptr) {
        return FailStep("frame");
    }
    frame->format = format.pixels;
    frame->width = picture.width;
    frame->height = picture.height;
    if (const int error = av_frame_get_buffer(frame.get(), 0); error < 0) {
        return FailStep("frame", error);
    }
    const AvOwner<SwsContext> scaler(sws_getContext(picture.width, picture.height, AV_PIX_FMT_BGR0,
                                                    picture.width, picture.height, format.pixels, SWS_POINT,
                                                    nullptr, nullptr, nullptr));
    if (scaler == nullptr || sws_scale(scaler.get(), picture.planes, picture.strides, 0, picture.height,
                                       frame->data, frame->linesize) <= 0) {
        return FailStep("colours", AVERROR(EINVAL));
    }
    return frame;
}

Expected<AvOwner<AVCodecContext>> OpenEncoder(int width, int height, const PictureFormat& format) {
    const AVCodec* codec = avcodec_find_encoder(format.codec);
    AvOwner<AVCodecContext> encoder(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
    if (encoder == nullptr) {
        return FailStep("encoder", AVERROR_ENCODER_NOT_FOUND);
    }
    Silence(*encoder);
    encoder->width = width;
    encoder->height = height;
    encoder->pix_fmt = format.pixels;
    if (format.quality != 0) {
        encoder->flags |= AV_CODEC_FLAG_QSCALE;
        encoder->global_quality = FF_QP2LAMBDA * format.quality;
    }
    encoder->time_base = {1, 1};
    if (const int error = avcodec_open2(encoder.get(), codec, nullptr); error < 0) {
        return FailStep("encoder", error);
    }
    return encoder;
}

}  // namespace

const PictureFormat* PictureFormatOf(const std::string& path) {
    const std::string_view name = path == "-" ? ".png" : std::string_view(path);
    for (const PictureFormat& format : kFormats) {
        const std::string_view ending(format.ending);
        if (name.size() >= ending.size() &&
            strcasecmp(name.data() + name.size() - ending.size(), format.ending) == 0) {
            return &format;
        }
    }
    return nullptr;
}

Expected<std::vector<uint8_t>> EncodePicture(const VideoDecodedPicture& picture,
                                             const PictureFormat& format) {
    const auto frame = Convert(picture, format);
    if (!frame) {
        return Fail(frame.error());
    }
    const auto encoder = OpenEncoder(picture.width, picture.height, format);
    if (!encoder) {
        return Fail(encoder.error());
    }
    (*frame)->quality = (*encoder)->global_quality;
    const AvOwner<AVPacket> packet(av_packet_alloc());
    if (packet == nullptr) {
        return FailStep("packet");
    }
    if (const int error = avcodec_send_frame(encoder->get(), frame->get()); error < 0) {
        return FailStep("encoder", error);
    }
    if (const int error = avcodec_receive_packet(encoder->get(), packet.get()); error < 0) {
        return FailStep("encoder", error);
    }
    return std::vector<uint8_t>(packet->data, packet->data + packet->size);
}

}  // namespace zumod::peer
