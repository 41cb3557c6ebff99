// A caller's side of the codec module: the module itself, opened like any other, and the arguments of an
// encode and of a decode call.
//
// Thread rule: one thread at a time.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/doubles/counted_object.h"
#include "tests/support/doubles/raw_slots.h"
#include "zumod/codec.h"
#include "zumod/codec_decode.h"
#include "zumod/descriptor.h"
#include "zumod/ref_ptr.h"

namespace zumod::testing {

// The policies that the camera module sends for an encoder and for a decoder, kept book over.
inline CRefPtr_T<CountedPolicy> EncoderPolicyFor(ReferenceLedger& ledger) {
    CRefPtr_T<CountedPolicy> policy(new CountedPolicy(ledger));
    policy->SetText("zu.module.interface.name", "IVEncoder");
    policy->SetInt64("zu.module.version", 0x0001000000000002);
    policy->SetInt64("zu.codec.policy.imagetype", 9);
    policy->Set("zu.codec.policy.enc.rapid.sub", kZUModDataBool, {0});
    policy->Set("zu.codec.policy.enc.no.stream.header", kZUModDataBool, {0});
    policy->Set("zu.codec.policy.enc.file.record", kZUModDataBool, {0});
    policy->Set("zu.codec.policy.enc.source.rgb", kZUModDataBool, {1});
    return policy;
}

inline CRefPtr_T<CountedPolicy> DecoderPolicyFor(ReferenceLedger& ledger, VideoTargetFormat target,
                                                 const void* screen_buffer = nullptr) {
    CRefPtr_T<CountedPolicy> policy(new CountedPolicy(ledger));
    policy->SetText("zu.module.interface.name", "IVDecoder");
    policy->SetInt64("zu.module.version", 0x0001000000000002);
    policy->SetInt64("zu.codec.policy.imagetype", 9);
    policy->Set("zu.codec.policy.dec.screenbuffer", kZUModDataPointer,
                CountedData::Int64Bytes(static_cast<int64_t>(reinterpret_cast<uintptr_t>(screen_buffer))));
    policy->SetInt64("zu.codec.policy.dec.target.avformat", target);
    return policy;
}

// One encode call. The object lives on the caller's stack, so it is not counted.
class EncodeCall final : public IVEncArgs {
public:
    EncodeCall(const void* bytes, uint64_t size) : m_bytes(bytes), m_size(size) {}

    uint64_t AddRef() override { return 1; }
    int64_t Release() override { return 1; }
    uint64_t GetArgOption() override { return 0; }
    const void* GetInputData() override { return m_bytes; }
    uint64_t GetInputSize() override { return m_size; }
    uint64_t GetArgFlags() override { return 0; }
    void ResetArgs() override {}
    uint64_t PrepareOutput(uint32_t size) override {
        ++prepared;
        output.resize(std::min<uint64_t>(size, room));
        return output.size();
    }
    void* GetOutputData() override { return output.empty() ? nullptr : output.data(); }
    uint64_t GetOutputSize() override { return output.size(); }

    std::vector<uint8_t> output;
    uint64_t room = UINT64_MAX;  // what a buffer can be grown to
    int prepared = 0;

private:
    const void* m_bytes;
    uint64_t m_size;
};

class DecodeCall final : public IVDecArgs {
public:
    using Taker = std::function<void(const VideoDecodedPicture&)>;
    DecodeCall(const std::vector<uint8_t>& bytes, Taker taker) : m_bytes(bytes), m_taker(std::move(taker)) {}

    uint64_t AddRef() override { return 1; }
    int64_t Release() override { return 1; }
    const void* GetInputData() override { return m_bytes.data(); }
    uint64_t GetInputSize() override { return m_bytes.size(); }
    void OnPicture(const VideoDecodedPicture* picture) override {
        ++pictures;
        m_taker(*picture);
    }

    int pictures = 0;

private:
    const std::vector<uint8_t>& m_bytes;
    Taker m_taker;
};

// zu-codec.so of the build tree.
class CodecModule {
public:
    explicit CodecModule(const char* path) : m_library(dlopen(path, RTLD_LAZY), &dlclose) {
        if (m_library == nullptr) {
            ADD_FAILURE() << dlerror();
            return;
        }
        m_descriptor = reinterpret_cast<EntryPointFunction>(dlsym(m_library.get(), kEntryPointName))();
    }

    const ZUModDescriptor& Descriptor() const { return *m_descriptor; }

    // Empty when the module refuses.
    template <class Interface>
    CRefPtr_T<Interface> Create(IZUModCreatePolicy& policy) const {
        IZUModInterface* out = nullptr;
        const int created = m_descriptor->create(&policy, &out);
        EXPECT_EQ(created, out != nullptr ? 1 : 0);
        return CRefPtr_T<Interface>::Adopt(static_cast<Interface*>(static_cast<void*>(out)));
    }

private:
    std::unique_ptr<void, int (*)(void*)> m_library;
    const ZUModDescriptor* m_descriptor = nullptr;
};

// Tells the encoder the record and encodes, as the camera module does: by slot.
inline bool EncodeWith(IVEncoder& encoder, const VideoInputFormat& record, IVEncArgs& call) {
    constexpr size_t kSetInputFormat = 10;
    constexpr size_t kEncode = 20;
    CallSlot<int>(&encoder, kSetInputFormat, &record);
    return CallSlot<bool>(&encoder, kEncode, &call);
}

// The bytes of an encoded picture; none when the encoder had nothing.
inline std::vector<uint8_t> Encoded(IVEncoder& encoder, const VideoInputFormat& record,
                                    const std::vector<uint8_t>& bytes) {
    EncodeCall call(bytes.data(), bytes.size());
    return EncodeWith(encoder, record, call) ? std::move(call.output) : std::vector<uint8_t>{};
}

// The kinds of the units of an Annex B stream, in order: 7 and 8 the parameter sets, 5 a key picture, 1 any
// other picture. Empty when it does not begin with a start code.
inline std::vector<int> UnitKinds(const std::vector<uint8_t>& stream) {
    std::vector<int> kinds;
    for (size_t i = 0; i + 3 < stream.size(); ++i) {
        if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1) {
            kinds.push_back(stream[i + 3] & 0x1F);
            i += 3;
        } else if (kinds.empty() && stream[i] != 0) {
            break;
        }
    }
    return kinds;
}

}  // namespace zumod::testing
