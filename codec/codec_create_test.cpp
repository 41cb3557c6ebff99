#include "codec/codec_create.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>

#include "tests/support/doubles/codec_calls.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/doubles/turkish_strcasecmp.h"
#include "tests/support/watch/call_watch.h"
#include "zumod/values.h"

namespace zumod::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CodecCreateTest : public LoggingTest {
protected:
    // The created object, or null if create refused.
    CRefPtr_T<IZUModInterface> Create(IZUModCreatePolicy* policy) {
        auto* const untouched = reinterpret_cast<IZUModInterface*>(this);
        IZUModInterface* out = untouched;
        if (codec_create(policy, &out) != 1) {
            EXPECT_EQ(out, untouched);
            return nullptr;
        }
        return CRefPtr_T<IZUModInterface>::Adopt(out);
    }
    void ExpectRefused(CountedPolicy& policy, const std::string& line) {
        EXPECT_EQ(Create(&policy), nullptr);
        EXPECT_THAT(host.TakeLines(), ElementsAre(LogLine{4, line}));
    }

    ReferenceLedger ledger;
    CRefPtr_T<CountedPolicy> encoder = EncoderPolicyFor(ledger);
    CRefPtr_T<CountedPolicy> decoder = DecoderPolicyFor(ledger, kVideoTargetI420);
};

TEST_F(CodecCreateTest, CreatesAnEncoderWithOneReferenceForTheCaller) {
    const auto object = Create(encoder.Get());
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->AddRef(), 2U);
    EXPECT_EQ(object->Release(), 1);
    EXPECT_THAT(host.Lines(), IsEmpty());
}

TEST_F(CodecCreateTest, TheCaseOfANameIsIgnoredInATurkishLocaleToo) {
    ASSERT_NE(strcasecmp("ivencoder", "IVEncoder"), 0);
    for (const char* name : {"ivencoder", "IVENCODER", "ivdecoder"}) {
        encoder->SetText("zu.module.interface.name", name);
        const auto object = Create(encoder.Get());
        ASSERT_NE(object, nullptr) << name;
        void* same = nullptr;
        EXPECT_TRUE(object->QueryInterface(name, &same)) << name;
        if (same != nullptr) {
            object->Release();
        }
    }
}

TEST_F(CodecCreateTest, CreatesADecoderWithOneReferenceForTheCaller) {
    const auto object = Create(decoder.Get());
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->AddRef(), 2U);
    EXPECT_EQ(object->Release(), 1);
}

TEST_F(CodecCreateTest, KeepsNoReferenceToThePolicy) {
    const auto first = Create(encoder.Get());
    const auto second = Create(decoder.Get());
    EXPECT_EQ(ledger.Alive(), 2) << "only the two policies";
    EXPECT_EQ(ledger.Held(), 2) << "by this test";
}

TEST_F(CodecCreateTest, TheLetterCaseOfTheInterfaceNameIsIgnored) {
    encoder->SetText("zu.module.interface.name", "ivENCODER");
    const auto object = Create(encoder.Get());
    ASSERT_NE(object, nullptr);
    void* interface_pointer = nullptr;
    EXPECT_TRUE(object->QueryInterface("IVEncoder", &interface_pointer));
    object->Release();
    decoder->SetText("zu.module.interface.name", "IVDECODER");
    EXPECT_NE(Create(decoder.Get()), nullptr);
}

TEST_F(CodecCreateTest, AcceptsAnyMinorVersion) {
    encoder->SetInt64("zu.module.version", 0x0001FFFFFFFFFFFF);
    EXPECT_NE(Create(encoder.Get()), nullptr);
    encoder->SetInt64("zu.module.version", 0x0001000000000000);
    EXPECT_NE(Create(encoder.Get()), nullptr);
}

TEST_F(CodecCreateTest, RefusesAnotherMajorVersion) {
    encoder->SetInt64("zu.module.version", 0x0002000000000000);
    ExpectRefused(*encoder,
                  "[zu-codec] create refused, version 562949953421312 of IVEncoder is not compatible "
                  "with 281474976710658");
    decoder->SetInt64("zu.module.version", 2);
    ExpectRefused(*decoder,
                  "[zu-codec] create refused, version 2 of IVDecoder is not compatible with 281474976710658");
}

TEST_F(CodecCreateTest, RefusesAnotherInterface) {
    encoder->SetText("zu.module.interface.name", "IVEncoder2");
    ExpectRefused(*encoder, "[zu-codec] create refused, unknown interface IVEncoder2");
    encoder->SetText("zu.module.interface.name", "");
    ExpectRefused(*encoder, "[zu-codec] create refused, unknown interface ");
    encoder->SetInt64("zu.module.interface.name", 0x0072656455);
    ExpectRefused(*encoder, "[zu-codec] create refused, unknown interface ");
}

TEST_F(CodecCreateTest, RefusesAnotherImageType) {
    for (const auto& policy : {encoder, decoder}) {
        policy->SetInt64("zu.codec.policy.imagetype", 8);
        ExpectRefused(*policy, "[zu-codec] create refused, unknown image type 8");
        policy->Set("zu.codec.policy.imagetype", kZUModDataPointer, CountedData::Int64Bytes(9));
        ExpectRefused(*policy, "[zu-codec] create refused, unknown image type 0");
    }
}

TEST_F(CodecCreateTest, RefusesAnotherTargetFormat) {
    for (const int64_t known : {0, 1, 2}) {
        decoder->SetInt64("zu.codec.policy.dec.target.avformat", known);
        EXPECT_NE(Create(decoder.Get()), nullptr) << known;
    }
    decoder->SetInt64("zu.codec.policy.dec.target.avformat", 3);
    ExpectRefused(*decoder, "[zu-codec] create refused, unknown target format 3");
    decoder->SetInt64("zu.codec.policy.dec.target.avformat", -1);
    ExpectRefused(*decoder, "[zu-codec] create refused, unknown target format 18446744073709551615");
}

TEST_F(CodecCreateTest, RefusesACallWithoutAPolicyOrASlot) {
    EXPECT_EQ(Create(nullptr), nullptr);
    EXPECT_EQ(codec_create(encoder.Get(), nullptr), 0);
    const LogLine line{4, "[zu-codec] create refused, invalid parameter"};
    EXPECT_THAT(host.Lines(), ElementsAre(line, line));
}

TEST_F(CodecCreateTest, RefusesACallThatRunsOutOfMemory) {
    class PolicyWithoutMemory final : public Counted<IZUModCreatePolicy> {
    public:
        using Counted::Counted;
        IZUModData* GetPolicy(const char*) override { throw std::bad_alloc(); }
    };
    const CRefPtr_T<PolicyWithoutMemory> policy(new PolicyWithoutMemory(ledger));
    EXPECT_EQ(Create(policy.Get()), nullptr);
}

TEST_F(CodecCreateTest, AnObjectHasOnlyTheInterfaceOfItsName) {
    const auto object = Create(encoder.Get());
    void* const untouched = this;
    void* interface_pointer = untouched;
    EXPECT_FALSE(object->QueryInterface("IVDecoder", &interface_pointer));
    EXPECT_FALSE(object->QueryInterface(nullptr, &interface_pointer));
    EXPECT_EQ(interface_pointer, untouched);
    EXPECT_FALSE(object->QueryInterface("IVEncoder", nullptr));
    EXPECT_TRUE(object->QueryInterface("ivencoder", &interface_pointer));
    EXPECT_EQ(interface_pointer, object.Get());
    EXPECT_EQ(object->Release(), 1);

    const auto other = Create(decoder.Get());
    EXPECT_FALSE(other->QueryInterface("IVEncoder", &interface_pointer));
    EXPECT_TRUE(other->QueryInterface("ivdecoder", &interface_pointer));
    EXPECT_EQ(interface_pointer, other.Get());
    EXPECT_EQ(other->Release(), 1);
}

TEST_F(CodecCreateTest, AnObjectAcceptsOnlyTheHardwarePropertyAndOnlyAsABoolean) {
    for (const auto& policy : {encoder, decoder}) {
        const auto object = Create(policy.Get());
        EXPECT_EQ(object->GetProperty("zu.codec.property.hardware"), nullptr);
        const CRefPtr_T<IZUModData> yes(new CountedData(ledger, kZUModDataBool, {1}));
        const CRefPtr_T<IZUModData> number(
            new CountedData(ledger, kZUModDataInt64, CountedData::Int64Bytes(1)));
        EXPECT_FALSE(object->SetProperty("zu.codec.property.hardware", number.Get()));
        EXPECT_FALSE(object->SetProperty("zu.codec.property.hardware", nullptr));
        EXPECT_FALSE(object->SetProperty(nullptr, yes.Get()));
        EXPECT_FALSE(object->SetProperty("zu.codec.property.other", yes.Get()));
        EXPECT_EQ(object->GetProperty("zu.codec.property.hardware"), nullptr);
        EXPECT_TRUE(object->SetProperty("zu.codec.property.hardware", yes.Get()));
        ASSERT_NE(object->GetProperty("zu.codec.property.hardware"), nullptr);
        EXPECT_TRUE(object->GetProperty("zu.codec.property.hardware")->GetBool());
        EXPECT_EQ(object->GetProperty("zu.codec.property.other"), nullptr);
        EXPECT_EQ(object->GetProperty(nullptr), nullptr);
    }
}

TEST_F(CodecCreateTest, APropertyWithoutMemoryIsRefusedAndItsOldValueIsKept) {
    for (const auto& policy : {encoder, decoder}) {
        const auto object = Create(policy.Get());
        const CRefPtr_T<IZUModData> no(new CountedData(ledger, kZUModDataBool, {0}));
        const CRefPtr_T<IZUModData> yes(new CountedData(ledger, kZUModDataBool, {1}));
        EXPECT_TRUE(object->SetProperty("zu.codec.property.hardware", no.Get()));
        CallWatch watch;
        watch.Fail(CallWatch::_Znwm, sizeof(CZUModData));
        EXPECT_FALSE(object->SetProperty("zu.codec.property.hardware", yes.Get()));
        EXPECT_FALSE(object->GetProperty("zu.codec.property.hardware")->GetBool());
        EXPECT_TRUE(object->SetProperty("zu.codec.property.hardware", yes.Get()));
        EXPECT_TRUE(object->GetProperty("zu.codec.property.hardware")->GetBool());
    }
}

TEST_F(CodecCreateTest, ReservedSlotsReturnZero) {
    for (const auto& policy : {encoder, decoder}) {
        const auto object = Create(policy.Get());
        for (const size_t slot : {7U, 8U, 9U, 11U, 12U, 13U, 14U, 15U, 16U, 17U, 18U, 19U}) {
            EXPECT_EQ(CallSlot<int>(object.Get(), slot), 0) << slot;
        }
    }
}

}  // namespace
}  // namespace zumod::testing
