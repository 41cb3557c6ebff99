#include "src/loader/codec_factory.h"

#include "src/loader/load_module.h"
#include "zumod/policies.h"

namespace zumod {
namespace {

// Required by the contract: refused for encoders only.
constexpr uint32_t kImageTypeWithoutEncoder = 11;

using PolicyPtr = CRefPtr_T<CZUModCreatePolicyAdapter>;

PolicyPtr NewPolicy(const char* interface_name) {
    return PolicyPtr(new CZUModCreatePolicyAdapter(interface_name, kCodecInterfaceVersion));
}

template <class Codec>
CRefPtr_T<Codec> CreateCodec(const PolicyPtr& policy) {
    IZUModInterface* created = nullptr;
    ZuModLoadModule(&created, kCodecModuleName, policy, nullptr, false);
    CRefPtr_T<Codec> codec = TakeInterface<Codec>(created);
    if (created != nullptr) {
        created->SetProperty(kPropertyHardware, CZUModData::FromBool(true).Get());
    }
    return codec;
}

}  // namespace

CRefPtr_T<IVEncoder> CreateVideoEncoder(uint32_t imageType, bool rapidSub, bool noStreamHeader,
                                        bool fileRecord, bool sourceRgb) {
    if (imageType == kImageTypeWithoutEncoder) {
        return {};
    }
    const PolicyPtr policy = NewPolicy(kVideoEncoderName);
    policy->SetPolicy(kPolicyImageType, CZUModData::FromInt64(imageType));
    policy->SetPolicy(kPolicyEncRapidSub, CZUModData::FromBool(rapidSub));
    policy->SetPolicy(kPolicyEncNoStreamHeader, CZUModData::FromBool(noStreamHeader));
    policy->SetPolicy(kPolicyEncFileRecord, CZUModData::FromBool(fileRecord));
    policy->SetPolicy(kPolicyEncSourceRgb, CZUModData::FromBool(sourceRgb));
    return CreateCodec<IVEncoder>(policy);
}

CRefPtr_T<IVDecoder> CreateVideoDecoder(uint32_t imageType, int32_t targetAvFormat, uint64_t screenBuffer) {
    const PolicyPtr policy = NewPolicy(kVideoDecoderName);
    policy->SetPolicy(kPolicyImageType, CZUModData::FromInt64(imageType));
    policy->SetPolicy(kPolicyDecScreenBuffer, CZUModData::FromPointer(screenBuffer));
    policy->SetPolicy(kPolicyDecTargetAvFormat, CZUModData::FromInt64(targetAvFormat));
    return CreateCodec<IVDecoder>(policy);
}

}  // namespace zumod
