// A codec module whose encoder has no state and allocates nothing: each picture becomes four bytes. It reads
// the first and the last byte of each picture, as an encoder that believes the size would.
#include <cstring>

#include "tests/modules/test_module.h"

namespace {

using namespace zumod;

class Encoder final : public IVEncoder {
public:
    uint64_t AddRef() override { return 1; }
    int64_t Release() override { return 1; }
    bool QueryInterface(const char*, void**) override { return false; }
    bool SetProperty(const char*, IZUModData*) override { return true; }
    IZUModData* GetProperty(const char*) override { return nullptr; }
    int SetInputFormat(const VideoInputFormat*) override { return 1; }
    bool Encode(IVEncArgs* args) override {
        const auto* bytes = static_cast<const volatile uint8_t*>(args->GetInputData());
        if (const uint64_t size = args->GetInputSize(); size != 0) {
            static_cast<void>(bytes[0]);
            static_cast<void>(bytes[size - 1]);
        }
        if (args->PrepareOutput(4) != 4) {
            return false;
        }
        std::memcpy(args->GetOutputData(), "code", 4);
        return true;
    }
};

Encoder g_encoder;

int Attach(IZUModRuntime*) {
    return 1;
}
int Create(IZUModCreatePolicy*, IZUModInterface** out) {
    *out = static_cast<IVEncoder*>(&g_encoder);
    return 1;
}

constexpr ZUModDescriptor kDescriptor = {0x0001000000000000, "zu-codec", &Attach, nullptr, &Create, ""};

}  // namespace

ZU_TEST_ENTRY_POINT(&kDescriptor)
