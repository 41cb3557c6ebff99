// The codec module's part of an encode call: a picture through the module's slots, against the same library
// called by hand with the same settings.
#include <dlfcn.h>

#include <cstdint>
#include <vector>

#include "bench/bare_encoder.h"
#include "bench/paired.h"
#include "tests/support/doubles/encode_call.h"
#include "zumod/codec.h"
#include "zumod/descriptor.h"
#include "zumod/policies.h"
#include "zumod/values.h"

namespace zumod::bench {
namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
constexpr size_t kPictures = 8;

// Textured pictures of a moving scene, painted before the measurement.
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

CRefPtr_T<IVEncoder> NewEncoder() {
    void* const library = dlopen(ZU_CODEC_FILE, RTLD_NOW);
    Require(library != nullptr, "the codec does not load");
    const auto entry = reinterpret_cast<EntryPointFunction>(dlsym(library, kEntryPointName));
    const CRefPtr_T<CZUModCreatePolicyAdapter> policy(
        new CZUModCreatePolicyAdapter(kVideoEncoderName, kCodecInterfaceVersion));
    policy->SetPolicy(kPolicyImageType, CZUModData::FromInt64(kImageTypeH264));
    IZUModInterface* out = nullptr;
    Require(entry()->create(policy.Get(), &out) == 1, "the codec creates no encoder");
    return TakeInterface<IVEncoder>(out);
}

// The bit rate and the key interval are the codec's defaults for this size.
void EncodeNv12(benchmark::State& state) {
    const auto pictures = MakePictures();
    const auto encoder = NewEncoder();
    const VideoInputFormat record{kWidth, kHeight, kWidth, 8, VideoFormatCode("NV12")};
    testing::EncodeCall call;
    size_t encoded = 0;
    BareEncoder bare({kWidth, kHeight, 30, 60, 4'147'200});
    size_t bare_encoded = 0;
    RunPaired(
        state, 1.05,
        [&] {
            const std::vector<uint8_t>& picture = pictures[encoded++ % kPictures];
            call.SetInput(picture.data(), picture.size());
            encoder->SetInputFormat(&record);
            Require(encoder->Encode(&call), "the codec fails");
        },
        [&] { bare.Encode(pictures[bare_encoded++ % kPictures].data()); });
}
BENCHMARK(EncodeNv12)->UseManualTime()->Iterations(300)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace zumod::bench
