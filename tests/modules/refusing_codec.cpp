// A codec module whose create function always refuses.
#include "tests/modules/test_module.h"

namespace {

using namespace zumod;

IZUModRuntime* g_host = nullptr;

void Tell(const char* text) {
    if (g_host != nullptr) {
        g_host->WriteLog(kLogEvent, text);
    }
}

int Attach(IZUModRuntime* host) {
    g_host = host;
    Tell("[codec] attach");
    return 1;
}

void Detach() {
    Tell("[codec] detach");
    g_host = nullptr;
}

int Create(IZUModCreatePolicy*, IZUModInterface**) {
    Tell("[codec] refuse");
    return 0;
}

constexpr ZUModDescriptor kDescriptor = {0x0001000000000000, "zu-codec", &Attach, &Detach, &Create, ""};

}  // namespace

ZU_TEST_ENTRY_POINT(&kDescriptor)
