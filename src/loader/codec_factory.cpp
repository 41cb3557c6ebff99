#include "src/loader/codec_factory.h"

#include "src/base/own_memory.h"
#include "src/loader/load_module.h"
#include "zumod/policies.h"

namespace zumod {
namespace {

// Required by the contract: refused for encoders only.
constexpr uint32_t kImageTypeWithoutEncoder = 11;

// Required by the contract: the bases contain IReference twice, which GCC warns about.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winaccessible-base"

// Copies a value for each read of the codec. If there is no memory for the copy, that is the module's own
// lack of memory, although the exception comes out of the codec's create.
class CodecPolicy final : public CZUModCreatePolicyAdapter {
public:
    explicit CodecPolicy(const char* interface_name)
        : CZUModCreatePolicyAdapter(interface_name, kCodecInterfaceVersion) {}

    IZUModData* GetPolicy(const char* key) override {
        return Allocate([this, key] { return CZUModCreatePolicyAdapter::GetPolicy(key); });
    }
};

#pragma GCC diagnostic pop

using PolicyPtr = CRefPtr_T<CodecPolicy>;

template <class Codec>
CRefPtr_T<Codec> CreateCodec(const PolicyPtr& policy) {
    IZUModInterface* created = nullptr;
    ZuModLoadModule(&created, kCodecModuleName, policy, nullptr, false);
    CRefPtr_T<Codec> codec = TakeInterface<Codec>(created);
    if (created != nullptr) {
        const CRefPtr_T<IZUModData> allowed = Allocate([] { return CZUModData::FromBool(true); });
        created->SetProperty(kPropertyHardware, allowed.Get());
    }
    return codec;
}

}  // namespace

CRefPtr_T<IVEncoder> CreateVideoEncoder(uint32_t imageType, bool rapidSub, bool noStreamHeader,
                                        bool fileRecord, bool sourceRgb) {
    if (imageType == kImageTypeWithoutEncoder) {
        return {};
    }
    return CreateCodec<IVEncoder>(Allocate([=] {
        PolicyPtr policy(new CodecPolicy(kVideoEncoderName));
        policy->SetPolicy(kPolicyImageType, CZUModData::FromInt64(imageType));
        policy->SetPolicy(kPolicyEncRapidSub, CZUModData::FromBool(rapidSub));
        policy->SetPolicy(kPolicyEncNoStreamHeader, CZUModData::FromBool(noStreamHeader));
        policy->SetPolicy(kPolicyEncFileRecord, CZUModData::FromBool(fileRecord));
        policy->SetPolicy(kPolicyEncSourceRgb, CZUModData::FromBool(sourceRgb));
        return policy;
    }));
}

CRefPtr_T<IVDecoder> CreateVideoDecoder(uint32_t imageType, int32_t targetAvFormat, uint64_t screenBuffer) {
    return CreateCodec<IVDecoder>(Allocate([=] {
        PolicyPtr policy(new CodecPolicy(kVideoDecoderName));
        policy->SetPolicy(kPolicyImageType, CZUModData::FromInt64(imageType));
        policy->SetPolicy(kPolicyDecScreenBuffer, CZUModData::FromPointer(screenBuffer));
        policy->SetPolicy(kPolicyDecTargetAvFormat, CZUModData::FromInt64(targetAvFormat));
        return policy;
    }));
}

}  // namespace zumod
