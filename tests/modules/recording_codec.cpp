// A codec module that logs every call to its host, one line per call.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "tests/modules/test_module.h"

namespace {

using namespace zumod;

testing::CodecRecord g_record;

[[gnu::format(printf, 1, 2)]] void Tell(const char* format, ...) {
    IZUModRuntime* host = g_record.host;
    if (host == nullptr) {
        return;
    }
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    host->WriteLog(kLogEvent, text);
}

std::string Describe(IZUModData* value) {
    if (value == nullptr) {
        return "null";
    }
    const std::string kind = std::to_string(value->GetType()) + " ";
    switch (value->GetType()) {
        case kZUModDataBool:
            return kind + (value->GetBool() ? "true" : "false");
        case kZUModDataInt64:
            return kind + std::to_string(value->GetInt64());
        case kZUModDataText: {
            const char* text = value->GetString();
            return kind + (text != nullptr ? text : "(null)");
        }
        case kZUModDataPointer:
            return kind + std::to_string(value->GetPointer());
        default:
            return kind + std::to_string(value->GetSize()) + " bytes";
    }
}

// The common part of its encoder and its decoder.
template <class Interface>
class Codec : public CCounted_T<Interface> {
public:
    explicit Codec(IZUModCreatePolicy* policy) : m_policy(g_record.keep_policy ? policy : nullptr) {
        ++g_record.objects;
    }
    ~Codec() override {
        --g_record.objects;
        Tell("[codec] destroy");
    }

    uint64_t AddRef() override {
        ++g_record.references;
        return CCounted_T<Interface>::AddRef();
    }
    int64_t Release() override {
        --g_record.references;
        return CCounted_T<Interface>::Release();
    }

    bool QueryInterface(const char*, void**) override { return false; }
    bool SetProperty(const char* key, IZUModData* value) override {
        Tell("[codec] SetProperty %s %s", key, Describe(value).c_str());
        return false;  // ignored by the module
    }
    IZUModData* GetProperty(const char*) override { return nullptr; }

private:
    CRefPtr_T<IZUModCreatePolicy> m_policy;
};

class Encoder final : public Codec<IVEncoder> {
public:
    using Codec::Codec;

    int SetInputFormat(const VideoInputFormat* format) override {
        Tell("[codec] SetInputFormat %dx%d stride %d bits %d", format->width, format->height, format->stride,
             format->bits_per_pixel);
        g_record.last_format = format->format;
        return g_record.set_format_result;
    }
    bool Encode(IVEncArgs* args) override {
        Tell("[codec] Encode %u bytes", static_cast<unsigned>(args->GetInputSize()));
        g_record.last_input = args->GetInputData();
        g_record.argument_references = args->AddRef() - 1;
        args->Release();
        if (g_record.prepares_output) {
            args->PrepareOutput(4);
            std::memcpy(args->GetOutputData(), "code", 4);
        }
        return g_record.encode_result;
    }
};

class Decoder final : public Codec<IVDecoder> {
public:
    using Codec::Codec;

    int SetOutputFormat(const void*) override { return 0; }
    bool Decode(IReference*) override { return false; }
};

int Attach(IZUModRuntime* host) {
    ++g_record.attaches;
    g_record.host = host;
    Tell("[codec] attach");
    return 0;  // ignored by the loader
}

void Detach() {
    ++g_record.detaches;
    Tell("[codec] detach");
    g_record.host = nullptr;
}

int Create(IZUModCreatePolicy* borrowed, IZUModInterface** out) {
    ++g_record.creates;
    g_record.last_policy = borrowed;
    if (borrowed == nullptr) {
        Tell("[codec] create without a policy");
        return 0;
    }
    const CRefPtr_T<IZUModCreatePolicy> policy(borrowed);
    std::string name;
    for (const char* key : {kPolicyInterfaceName, kPolicyVersion, kPolicyImageType, kPolicyEncRapidSub,
                            kPolicyEncNoStreamHeader, kPolicyEncFileRecord, kPolicyEncSourceRgb,
                            kPolicyDecScreenBuffer, kPolicyDecTargetAvFormat}) {
        const CRefPtr_T<IZUModData> value(policy->GetPolicy(key));
        Tell("[codec] policy %s %s", key, Describe(value.Get()).c_str());
        if (key == kPolicyInterfaceName && value != nullptr && value->GetType() == kZUModDataText) {
            const char* text = value->GetString();
            name = text != nullptr ? text : "";
        }
    }
    if (name == kVideoEncoderName) {
        auto* encoder = CRefPtr_T<IVEncoder>(new Encoder(borrowed)).Detach();
        *out = encoder;
    } else if (name == kVideoDecoderName) {
        auto* decoder = CRefPtr_T<IVDecoder>(new Decoder(borrowed)).Detach();
        *out = decoder;
    } else {
        Tell("[codec] refuse %s", name.c_str());
        return 0;
    }
    Tell("[codec] create %s", name.c_str());
    return 1;
}

constexpr ZUModDescriptor kDescriptor = {0x0001000000000000, "zu-codec", &Attach, &Detach, &Create, ""};

}  // namespace

ZU_TEST_ENTRY_POINT(&kDescriptor)

extern "C" [[gnu::visibility("default")]] testing::CodecRecord* zu_test_codec_record() {
    return &g_record;
}
