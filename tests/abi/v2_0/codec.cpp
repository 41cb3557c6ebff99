// A codec module of version 2.0, frozen like sdk.h. Its encoder turns each picture into four bytes. It logs
// each call to its host.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "tests/abi/v2_0/sdk.h"

namespace {

using namespace sdk_v2_0;

IZUModRuntime* g_host = nullptr;

[[gnu::format(printf, 1, 2)]] void Tell(const char* format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    g_host->WriteLog(1, text);
}

class Encoder final : public CCounted_T<IVEncoder> {
public:
    ~Encoder() override { Tell("[old codec] destroy"); }

    bool QueryInterface(const char*, void**) override { return false; }
    bool SetProperty(const char* key, IZUModData* value) override {
        Tell("[old codec] property %s type %u value %d", key, value->GetType(), value->GetBool());
        return true;
    }
    IZUModData* GetProperty(const char*) override { return nullptr; }
    int SetInputFormat(const VideoInputFormat* format) override {
        Tell("[old codec] format %d x %d stride %d bits %d code 0x%08x", format->width, format->height,
             format->stride, format->bits_per_pixel, format->format);
        return 1;
    }
    bool Encode(IVEncArgs* args) override {
        args->ResetArgs();
        const uint64_t first = args->PrepareOutput(64);
        const uint64_t second = args->PrepareOutput(4);
        Tell("[old codec] encode %lu bytes option %lu flags %lu output %lu, %lu, %lu", args->GetInputSize(),
             args->GetArgOption(), args->GetArgFlags(), first, second, args->GetOutputSize());
        // The first byte of the picture shows that the input is readable.
        static_cast<void>(*static_cast<const volatile uint8_t*>(args->GetInputData()));
        std::memcpy(args->GetOutputData(), "old!", 4);
        return true;
    }
};

int Attach(IZUModRuntime* host) {
    g_host = host;
    return 1;
}
void Detach() {
    g_host = nullptr;
}

int Create(IZUModCreatePolicy* policy, IZUModInterface** out) {
    std::string line = "[old codec] create";
    for (const char* key : {"zu.module.interface.name", "zu.module.version", "zu.codec.policy.imagetype",
                            "zu.codec.policy.enc.rapid.sub", "zu.codec.policy.enc.no.stream.header",
                            "zu.codec.policy.enc.file.record", "zu.codec.policy.enc.source.rgb"}) {
        const CRefPtr_T<IZUModData> value(policy->GetPolicy(key));
        if (value.Get() == nullptr) {
            return 0;
        }
        switch (value->GetType()) {
            case 1:
                line += value->GetBool() ? " true" : " false";
                break;
            case 2:
                line.append(" ").append(std::to_string(value->GetInt64()));
                break;
            case 4:
                line.append(" ").append(value->GetString());
                break;
            default:
                return 0;
        }
    }
    Tell("%s", line.c_str());
    IVEncoder* encoder = new Encoder;
    encoder->AddRef();
    *out = static_cast<IZUModInterface*>(static_cast<void*>(encoder));
    return 1;
}

constexpr ZUModDescriptor kDescriptor = {0x0001000000000000, "zu-codec", &Attach, &Detach, &Create, "frozen"};

}  // namespace

extern "C" [[gnu::visibility("default")]] const ZUModDescriptor* zumod_get_entrypoint() {
    return &kDescriptor;
}
