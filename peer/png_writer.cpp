#include "peer/png_writer.h"

#include <string>

#include "common/av_objects.h"

namespace zumod::peer {
namespace {

tl::unexpected<Error> FailStep(const char* step, int error = AVERROR(ENOMEM)) {
    return Fail("the picture cannot be written as PNG: " + std::string(step) + ": " +
                AvErrorText(error).text);
}

Expected<AvOwner<AVFrame>> ToRgb(const VideoDecodedPicture& picture) {
    AvOwner<AVFrame> frame(av_frame_alloc());
    if (frame == nullptr) {
        return FailStep("frame");
    }
    frame->format = AV_PIX_FMT_RGB24;
    frame->width = picture.width;
    frame->height = picture.height;
    if (const int error = av_frame_get_buffer(frame.get(), 0); error < 0) {
        return FailStep("frame", error);
    }
    const AvOwner<SwsContext> scaler(sws_getContext(picture.width, picture.height, AV_PIX_FMT_BGR0,
                                                    picture.width, picture.height, AV_PIX_FMT_RGB24,
                                                    SWS_POINT, nullptr, nullptr, nullptr));
    if (scaler == nullptr || sws_scale(scaler.get(), picture.planes, picture.strides, 0, picture.height,
                                       frame->data, frame->linesize) <= 0) {
        return FailStep("colours", AVERROR(EINVAL));
    }
    return frame;
}

Expected<AvOwner<AVCodecContext>> OpenEncoder(int width, int height) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
    AvOwner<AVCodecContext> encoder(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
    if (encoder == nullptr) {
        return FailStep("encoder", AVERROR_ENCODER_NOT_FOUND);
    }
    Silence(*encoder);
    encoder->width = width;
    encoder->height = height;
    encoder->pix_fmt = AV_PIX_FMT_RGB24;
    encoder->time_base = {1, 1};
    if (const int error = avcodec_open2(encoder.get(), codec, nullptr); error < 0) {
        return FailStep("encoder", error);
    }
    return encoder;
}

}  // namespace

Expected<std::vector<uint8_t>> EncodePng(const VideoDecodedPicture& picture) {
    const auto frame = ToRgb(picture);
    if (!frame) {
        return Fail(frame.error());
    }
    const auto encoder = OpenEncoder(picture.width, picture.height);
    if (!encoder) {
        return Fail(encoder.error());
    }
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
