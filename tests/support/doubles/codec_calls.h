// What a test needs to call the codec module: the loaded module, creation policies, and the arguments of an
// encode and of a decode call.
//
// Thread rule: one thread at a time.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/doubles/counted_object.h"
#include "tests/support/doubles/encode_call.h"
#include "tests/support/doubles/raw_slots.h"
#include "zumod/codec.h"
#include "zumod/codec_decode.h"
#include "zumod/descriptor.h"
#include "zumod/ref_ptr.h"

namespace zumod::testing {

// The policies that the camera module sends for an encoder and for a decoder. The ledger counts their
// references.
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

// Lives on the caller's stack, so it is not counted.
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

    // Null if the module refuses.
    template <class Interface>
    CRefPtr_T<Interface> Create(IZUModCreatePolicy& policy) const {
        IZUModInterface* out = nullptr;
        const int created = m_descriptor->create(&policy, &out);
        EXPECT_EQ(created, out != nullptr ? 1 : 0);
        return TakeInterface<Interface>(out);
    }

private:
    std::unique_ptr<void, int (*)(void*)> m_library;
    const ZUModDescriptor* m_descriptor = nullptr;
};

// Sets the input format and encodes through the vtable slots, as the camera module does.
inline bool EncodeWith(IVEncoder& encoder, const VideoInputFormat& record, IVEncArgs& call) {
    constexpr size_t kSetInputFormat = 10;
    constexpr size_t kEncode = 20;
    CallSlot<int>(&encoder, kSetInputFormat, &record);
    return CallSlot<bool>(&encoder, kEncode, &call);
}

// The bytes of the encoded picture, empty if the encoder returns false.
inline std::vector<uint8_t> Encoded(IVEncoder& encoder, const VideoInputFormat& record,
                                    const std::vector<uint8_t>& bytes) {
    EncodeCall call(bytes.data(), bytes.size());
    return EncodeWith(encoder, record, call) ? std::move(call.output) : std::vector<uint8_t>{};
}

// The types of the NAL units of an Annex B stream, in order: 7 and 8 parameter sets, 5 a key picture, 1 any
// other picture. Empty if the stream does not begin with a start code.
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
