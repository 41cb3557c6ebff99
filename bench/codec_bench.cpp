// What the codec module adds to the encoder it stands on: a picture through the module's slots, against the
// same library called by hand with the same settings.
#include <dlfcn.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench/paired.h"
#include "common/av_objects.h"
#include "zumod/codec.h"
#include "zumod/descriptor.h"
#include "zumod/enc_args.h"
#include "zumod/policies.h"
#include "zumod/values.h"

extern "C" {
#include <libavutil/opt.h>
}

namespace zumod::bench {
namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
constexpr size_t kPictures = 8;

// Moving pictures with some texture, all made beforehand.
std::vector<std::vector<uint8_t>> MakePictures() {
    std::vector<std::vector<uint8_t>> pictures;
    for (size_t shift = 0; shift < kPictures; ++shift) {
        std::vector<uint8_t> picture(kWidth * kHeight * 3 / 2, 128);
        for (size_t i = 0; i < kWidth * kHeight; ++i) {
            const size_t x = i % kWidth + 4 * shift;
            const size_t y = i / kWidth;
            picture[i] = static_cast<uint8_t>(60 + x / 16 % 40 + y / 8 + (x * 7 + y * 13) % 11);
        }
        pictures.push_back(std::move(picture));
    }
    return pictures;
}

struct Call final : IVEncArgs {
    uint64_t AddRef() override { return 1; }
    int64_t Release() override { return 1; }
    uint64_t GetArgOption() override { return 0; }
    const void* GetInputData() override { return input->data(); }
    uint64_t GetInputSize() override { return input->size(); }
    uint64_t GetArgFlags() override { return 0; }
    void ResetArgs() override {}
    uint64_t PrepareOutput(uint32_t size) override {
        output.resize(size);
        return size;
    }
    void* GetOutputData() override { return output.data(); }
    uint64_t GetOutputSize() override { return output.size(); }

    const std::vector<uint8_t>* input = nullptr;
    std::vector<uint8_t> output;
};

CRefPtr_T<IVEncoder> NewEncoder() {
    void* const library = dlopen(ZU_CODEC_FILE, RTLD_NOW);
    if (library == nullptr) {
        std::abort();
    }
    const auto entry = reinterpret_cast<EntryPointFunction>(dlsym(library, kEntryPointName));
    const CRefPtr_T<CZUModCreatePolicyAdapter> policy(
        new CZUModCreatePolicyAdapter(kVideoEncoderName, kCodecInterfaceVersion));
    policy->SetPolicy(kPolicyImageType, CZUModData::FromInt64(9));
    IZUModInterface* out = nullptr;
    if (entry()->create(policy.Get(), &out) != 1) {
        std::abort();
    }
    return CRefPtr_T<IVEncoder>::Adopt(static_cast<IVEncoder*>(static_cast<void*>(out)));
}

AvOwner<AVCodecContext> OpenByHand() {
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    AvOwner<AVCodecContext> context(avcodec_alloc_context3(codec));
    context->log_level_offset = 100;
    context->width = kWidth;
    context->height = kHeight;
    context->pix_fmt = AV_PIX_FMT_NV12;
    context->time_base = {1, 30};
    context->framerate = {30, 1};
    context->gop_size = 60;
    context->thread_count = 1;
    context->bit_rate = context->rc_max_rate = context->rc_buffer_size = 4147200;
    av_opt_set(context->priv_data, "preset", "ultrafast", 0);
    av_opt_set(context->priv_data, "tune", "zerolatency", 0);
    if (avcodec_open2(context.get(), codec, nullptr) < 0) {
        std::abort();
    }
    return context;
}

// Limit: the module's part of a picture's time is a twentieth at most.
void EncodeNv12(benchmark::State& state) {
    const auto pictures = MakePictures();
    const auto encoder = NewEncoder();
    const VideoInputFormat record{kWidth, kHeight, kWidth, 8, VideoFormatCode("NV12")};
    Call call;
    size_t next = 0;
    const auto subject = [&] {
        call.input = &pictures[next++ % kPictures];
        encoder->SetInputFormat(&record);
        if (!encoder->Encode(&call)) {
            std::abort();
        }
    };

    const auto context = OpenByHand();
    const AvOwner<AVFrame> frame(av_frame_alloc());
    const AvOwner<AVPacket> packet(av_packet_alloc());
    int64_t number = 0;
    const auto minimum = [&] {
        // A buffer that nobody frees: the picture is not copied.
        auto* bytes = const_cast<uint8_t*>(pictures[static_cast<size_t>(number) % kPictures].data());
        frame->buf[0] = av_buffer_create(
            bytes, kWidth * kHeight * 3 / 2, [](void*, uint8_t*) {}, nullptr, AV_BUFFER_FLAG_READONLY);
        frame->format = AV_PIX_FMT_NV12;
        frame->width = kWidth;
        frame->height = kHeight;
        frame->data[0] = bytes;
        frame->data[1] = bytes + kWidth * kHeight;
        frame->linesize[0] = frame->linesize[1] = kWidth;
        frame->pts = number++;
        if (avcodec_send_frame(context.get(), frame.get()) < 0 ||
            avcodec_receive_packet(context.get(), packet.get()) < 0) {
            std::abort();
        }
        av_frame_unref(frame.get());
    };
    RunPaired(state, 1.05, subject, minimum);
}
BENCHMARK(EncodeNv12)->UseManualTime()->Iterations(300)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace zumod::bench
