// A codec module whose encoder has no state and allocates nothing: each picture becomes four bytes.
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
