// The smallest codec module that keeps the contract: it reads its policies, creates an object, and returns a
// kilobyte per picture. Built with ZU_BENCH_STAMPS, the kilobyte begins with the picture's stamp.
#include <cstring>

#include "bench/picture_stamp.h"
#include "zumod/zumod.h"

namespace {

using namespace zumod;

class Encoder final : public CCounted_T<IVEncoder> {
public:
    bool QueryInterface(const char*, void**) override { return false; }
    bool SetProperty(const char* key, IZUModData* value) override {
        if (std::strcmp(key, kPropertyHardware) != 0) {
            return false;
        }
        m_hardware = value->GetBool();
        return true;
    }
    IZUModData* GetProperty(const char*) override { return nullptr; }
    int SetInputFormat(const VideoInputFormat* format) override {
        m_format = *format;
        return 0;
    }
    bool Encode(IVEncArgs* args) override {
        if (args->PrepareOutput(bench::kEncodedSize) != bench::kEncodedSize || !m_hardware) {
            return false;
        }
#ifdef ZU_BENCH_STAMPS
        const bench::StampedPacket packet =
            bench::ReadPicture(static_cast<const uint8_t*>(args->GetInputData()),
                               static_cast<int>(m_format.width), static_cast<int>(m_format.height));
        std::memcpy(args->GetOutputData(), &packet, sizeof packet);
#endif
        return true;
    }

private:
    bool m_hardware = false;
    VideoInputFormat m_format{};
};

int Attach(IZUModRuntime*) {
    return 1;
}

void Detach() {}

int Create(IZUModCreatePolicy* policy, IZUModInterface** out) {
    bool wanted = false;
    uint32_t kinds = 0;
    for (const char* key : {kPolicyInterfaceName, kPolicyVersion, kPolicyImageType, kPolicyEncRapidSub,
                            kPolicyEncNoStreamHeader, kPolicyEncFileRecord, kPolicyEncSourceRgb}) {
        const CRefPtr_T<IZUModData> value(policy->GetPolicy(key));
        if (value == nullptr) {
            return 0;
        }
        kinds |= 1U << value->GetType();
        if (key == kPolicyInterfaceName) {
            wanted = std::strcmp(value->GetString(), kVideoEncoderName) == 0;
        }
    }
    if (!wanted || kinds != 0b10110) {
        return 0;
    }
    StoreInterface<IVEncoder>(new Encoder, out);
    return 1;
}

constexpr ZUModDescriptor kDescriptor = {0x0001000000000000, "zu-codec", &Attach, &Detach, &Create, ""};

}  // namespace

extern "C" [[gnu::visibility("default")]] const ZUModDescriptor* zumod_get_entrypoint() {
    return &kDescriptor;
}
