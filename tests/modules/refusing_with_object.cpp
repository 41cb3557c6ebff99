// A codec module that refuses and still leaves an object, whose code is in the module.
#include "tests/modules/test_module.h"

namespace {

using namespace zumod;

// Not cleared by detach: the object logs its destruction after it.
IZUModRuntime* g_host = nullptr;

class Leftover final : public CCounted_T<IZUModInterface> {
public:
    ~Leftover() override { g_host->WriteLog(kLogEvent, "[codec] destroy"); }
    bool QueryInterface(const char*, void**) override { return false; }
    bool SetProperty(const char*, IZUModData*) override { return false; }
    IZUModData* GetProperty(const char*) override { return nullptr; }
};

int Attach(IZUModRuntime* host) {
    g_host = host;
    return 1;
}

void Detach() {
    g_host->WriteLog(kLogEvent, "[codec] detach");
}

int Create(IZUModCreatePolicy*, IZUModInterface** out) {
    *out = CRefPtr_T<IZUModInterface>(new Leftover).Detach();
    return 0;
}

constexpr ZUModDescriptor kDescriptor = {0x0001000000000000, "zu-codec", &Attach, &Detach, &Create, ""};

}  // namespace

ZU_TEST_ENTRY_POINT(&kDescriptor)
