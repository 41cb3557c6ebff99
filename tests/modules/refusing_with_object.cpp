// A codec module that refuses, and yet leaves an object behind whose code is its own.
#include "tests/modules/test_module.h"

namespace {

using namespace zumod;

// Not forgotten by detach: the object tells of its end after it.
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
