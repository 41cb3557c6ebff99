#include "src/loader/codec_factory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "src/base/own_memory.h"
#include "tests/support/doubles/raw_slots.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/process/captured_stdout.h"
#include "tests/support/process/test_modules.h"
#include "tests/support/watch/call_watch.h"
#include "tests/support/watch/mappings.h"
#include "zumod/policies.h"
#include "zumod/values.h"

namespace zumod {
namespace {

using testing::CallSlot;
using testing::CallWatch;
using testing::CodecProbe;
using testing::CodecRecord;
using testing::LogLine;
using testing::TestModuleDir;
using testing::TestModulePath;
using testing::TimesMapped;
using Lines = std::vector<LogLine>;

// IReference is a base of this class twice, as it is of the adapter.
#pragma GCC diagnostic ignored "-Winaccessible-base"

// The values of another policy, by key.
class Unpacked final : public CZUModBasePolicyAdapter {
public:
    IZUModData* SetPolicy(const char* key, CRefPtr_T<IZUModData> value) override {
        return (values[key] = std::move(value)).Get();
    }
    std::map<std::string, CRefPtr_T<IZUModData>> values;
};

class CodecFactoryTest : public testing::LoggingTest {
protected:
    CodecFactoryTest() { UseModule("recording"); }
    ~CodecFactoryTest() override { record.keep_policy = false; }

    void UseModule(const std::string& kind) {
        host.SetProperty("zu.env.modules.dir", CZUModData::FromText(TestModuleDir(kind).c_str()));
    }

    // The policy that the codec received last; an object of the codec keeps it alive.
    CRefPtr_T<Unpacked> LastPolicy() {
        const CRefPtr_T<Unpacked> unpacked(new Unpacked);
        unpacked->CopyPolicies(dynamic_cast<CZUModBasePolicyAdapter&>(*record.last_policy));
        return unpacked;
    }

    CodecProbe probe{"recording"};
    CodecRecord& record = probe.Record();
};

TEST_F(CodecFactoryTest, AnEncoderIsRequestedWithSevenPoliciesAndAllowedToUseHardware) {
    const auto encoder = CreateVideoEncoder(9, false, false, false, true);
    ASSERT_NE(encoder, nullptr);
    EXPECT_EQ(host.Lines(), (Lines{{1, "[codec] attach"},
                                   {1, "[codec] policy zu.module.interface.name 4 IVEncoder"},
                                   {1, "[codec] policy zu.module.version 2 281474976710658"},
                                   {1, "[codec] policy zu.codec.policy.imagetype 2 9"},
                                   {1, "[codec] policy zu.codec.policy.enc.rapid.sub 1 false"},
                                   {1, "[codec] policy zu.codec.policy.enc.no.stream.header 1 false"},
                                   {1, "[codec] policy zu.codec.policy.enc.file.record 1 false"},
                                   {1, "[codec] policy zu.codec.policy.enc.source.rgb 1 true"},
                                   {1, "[codec] policy zu.codec.policy.dec.screenbuffer null"},
                                   {1, "[codec] policy zu.codec.policy.dec.target.avformat null"},
                                   {1, "[codec] create IVEncoder"},
                                   {1, "[codec] SetProperty zu.codec.property.hardware 1 true"}}));
    EXPECT_EQ(host.AskedKeys(), std::vector<std::string>{"zu.env.modules.dir"});
}

TEST_F(CodecFactoryTest, EachFlagOfTheEncoderHasOnePolicy) {
    const std::string keys[] = {"zu.codec.policy.enc.rapid.sub", "zu.codec.policy.enc.no.stream.header",
                                "zu.codec.policy.enc.file.record", "zu.codec.policy.enc.source.rgb"};
    for (int chosen = 0; chosen < 4; ++chosen) {
        CreateVideoEncoder(9, chosen == 0, chosen == 1, chosen == 2, chosen == 3);
        for (int flag = 0; flag < 4; ++flag) {
            EXPECT_TRUE(
                host.Has({1, "[codec] policy " + keys[flag] + (flag == chosen ? " 1 true" : " 1 false")}));
        }
        host.TakeLines();
    }
}

TEST_F(CodecFactoryTest, TheEncodersPolicyHasExactlySevenKeys) {
    record.keep_policy = true;
    const auto encoder = CreateVideoEncoder(9, false, false, false, true);
    std::vector<std::string> keys;
    const auto policy = LastPolicy();
    for (const auto& [key, value] : policy->values) {
        keys.push_back(key);
    }
    EXPECT_EQ(keys, (std::vector<std::string>{
                        "zu.codec.policy.enc.file.record", "zu.codec.policy.enc.no.stream.header",
                        "zu.codec.policy.enc.rapid.sub", "zu.codec.policy.enc.source.rgb",
                        "zu.codec.policy.imagetype", "zu.module.interface.name", "zu.module.version"}));
}

// The codec passes it on, and the caller can tell it from the codec's own lack of memory.
TEST_F(CodecFactoryTest, APolicyWithoutMemoryForACopyThrowsOutOfMemory) {
    record.keep_policy = true;
    const auto encoder = CreateVideoEncoder(9, false, false, false, true);
    IZUModCreatePolicy* const policy = record.last_policy;
    {
        CallWatch watch;
        watch.Fail(CallWatch::_Znwm, sizeof(CZUModData));
        EXPECT_THROW(policy->GetPolicy("zu.module.version"), OutOfMemory);
    }
    const CRefPtr_T<IZUModData> version(policy->GetPolicy("zu.module.version"));
    EXPECT_EQ(IntegerOf(version.Get()), 281474976710658);
}

TEST_F(CodecFactoryTest, WithoutMemoryForAPolicyThereIsNoObject) {
    const auto create_encoder = [] { CreateVideoEncoder(9, false, false, false, true); };
    const auto create_decoder = [] { CreateVideoDecoder(9, 0, 0); };
    for (const std::function<void()>& create :
         {std::function<void()>(create_encoder), std::function<void()>(create_decoder)}) {
        CallWatch watch;
        watch.Fail(CallWatch::_Znwm, sizeof(CZUModData));
        EXPECT_THROW(create(), OutOfMemory);
    }
    EXPECT_EQ(host.Lines(), Lines{});
}

TEST_F(CodecFactoryTest, TheFactoryKeepsNoReferenceToThePolicyOrItsValues) {
    record.keep_policy = true;
    const auto encoder = CreateVideoEncoder(9, false, false, false, true);
    IZUModCreatePolicy* kept = record.last_policy;
    EXPECT_EQ(kept->AddRef(), 2U);
    kept->Release();
    const auto policy = LastPolicy();
    for (const auto& [key, value] : policy->values) {
        // The policy's reference, this one, and the one being added.
        EXPECT_EQ(value->AddRef(), 3U) << key;
        value->Release();
    }
}

TEST_F(CodecFactoryTest, TheCallerGetsOneReference) {
    const int objects = record.objects;
    const int references = record.references;
    {
        const auto encoder = CreateVideoEncoder(9, false, false, false, true);
        EXPECT_EQ(record.objects, objects + 1);
        EXPECT_EQ(record.references, references + 1);
    }
    EXPECT_EQ(record.objects, objects);
    EXPECT_EQ(record.references, references);
}

TEST_F(CodecFactoryTest, TheEncodersSlotsAreReachedThroughThePointerItself) {
    const auto encoder = CreateVideoEncoder(9, false, false, false, true);
    host.TakeLines();
    const VideoInputFormat format{641, 480, 644, 8, 0};
    EXPECT_EQ((CallSlot<int>(encoder.Get(), 10, &format)), 0);
    EXPECT_EQ((CallSlot<uint64_t>(encoder.Get(), 2)), 2U);
    EXPECT_EQ((CallSlot<int64_t>(encoder.Get(), 3)), 1);
    EXPECT_FALSE((CallSlot<bool, const char*, IZUModData*>(encoder.Get(), 5, "key", nullptr)));
    EXPECT_EQ(host.Lines(), (Lines{{1, "[codec] SetInputFormat 641x480 stride 644 bits 8"},
                                   {1, "[codec] SetProperty key null"}}));
}

TEST_F(CodecFactoryTest, TheCodecModuleStaysMappedAfterItsObjectsAreDestroyed) {
    CreateVideoEncoder(9, false, false, false, true);
    CreateVideoEncoder(9, false, false, false, true);
    EXPECT_EQ(TimesMapped(TestModulePath("recording")), 1);
    EXPECT_FALSE(host.Has({1, "[codec] detach"}));
}

TEST_F(CodecFactoryTest, ImageTypeElevenHasNoEncoderAndLoadsNothing) {
    const int creates = record.creates;
    const testing::CapturedStdout captured;
    EXPECT_EQ(CreateVideoEncoder(11, true, true, true, true), nullptr);
    EXPECT_EQ(captured.Text(), "");
    EXPECT_EQ(host.Lines(), Lines{});
    EXPECT_EQ(host.AskedKeys(), std::vector<std::string>{});
    EXPECT_EQ(record.creates, creates);
}

TEST_F(CodecFactoryTest, ImageTypeElevenHasADecoder) {
    EXPECT_NE(CreateVideoDecoder(11, 0, 0), nullptr);
    EXPECT_TRUE(host.Has({1, "[codec] policy zu.codec.policy.imagetype 2 11"}));
}

TEST_F(CodecFactoryTest, AnImageTypeIsUnsigned) {
    CreateVideoEncoder(0xffffffff, false, false, false, true);
    EXPECT_TRUE(host.Has({1, "[codec] policy zu.codec.policy.imagetype 2 4294967295"}));
}

TEST_F(CodecFactoryTest, ADecoderIsRequestedWithFivePoliciesAndAllowedToUseHardware) {
    record.keep_policy = true;
    const auto decoder = CreateVideoDecoder(9, -1, 0xfedcba9876543210);
    ASSERT_NE(decoder, nullptr);
    EXPECT_EQ(host.Lines(),
              (Lines{{1, "[codec] attach"},
                     {1, "[codec] policy zu.module.interface.name 4 IVDecoder"},
                     {1, "[codec] policy zu.module.version 2 281474976710658"},
                     {1, "[codec] policy zu.codec.policy.imagetype 2 9"},
                     {1, "[codec] policy zu.codec.policy.enc.rapid.sub null"},
                     {1, "[codec] policy zu.codec.policy.enc.no.stream.header null"},
                     {1, "[codec] policy zu.codec.policy.enc.file.record null"},
                     {1, "[codec] policy zu.codec.policy.enc.source.rgb null"},
                     {1, "[codec] policy zu.codec.policy.dec.screenbuffer 6 18364758544493064720"},
                     {1, "[codec] policy zu.codec.policy.dec.target.avformat 2 -1"},
                     {1, "[codec] create IVDecoder"},
                     {1, "[codec] SetProperty zu.codec.property.hardware 1 true"}}));
    EXPECT_EQ(LastPolicy()->values.size(), 5U);
}

TEST_F(CodecFactoryTest, ADecoderWithoutAScreenBufferReceivesZero) {
    CreateVideoDecoder(9, 0, 0);
    EXPECT_TRUE(host.Has({1, "[codec] policy zu.codec.policy.dec.screenbuffer 6 0"}));
}

TEST_F(CodecFactoryTest, AFailureIsEmptyAndReportedByTheLoader) {
    UseModule("missing");
    EXPECT_EQ(CreateVideoEncoder(9, false, false, false, true), nullptr);
    EXPECT_EQ(CreateVideoDecoder(9, 0, 0), nullptr);
    const LogLine no_file{4, "[zumod] module file is not exist"};
    const LogLine load_fails{4, "[client_plugin] load module(zu-codec) fail"};
    EXPECT_EQ(host.Lines(), (Lines{no_file, load_fails, no_file, load_fails}));
}

TEST_F(CodecFactoryTest, ARefusalIsEmpty) {
    UseModule("refusing");
    EXPECT_EQ(CreateVideoEncoder(9, false, false, false, true), nullptr);
    EXPECT_EQ(host.Lines().back(), (LogLine{4, "[client_plugin] create module_name(zu-codec) fail"}));
    EXPECT_EQ(TimesMapped(TestModulePath("refusing")), 0);
}

TEST_F(CodecFactoryTest, TheDirectoryOfOneModuleIsNotUsed) {
    host.SetProperty("zu.env.modules.dir_zu-codec", CZUModData::FromText("/nowhere"));
    EXPECT_NE(CreateVideoEncoder(9, false, false, false, true), nullptr);
}

TEST_F(CodecFactoryTest, EightThreadsMayCreateAtOnce) {
    const int objects = record.objects;
    const int creates = record.creates;
    std::vector<std::thread> threads;
    std::atomic<int> made{0};
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&made] {
            for (int round = 0; round < 20; ++round) {
                made += CreateVideoEncoder(9, false, false, false, true) != nullptr ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(made, 160);
    EXPECT_EQ(record.creates, creates + 160);
    EXPECT_EQ(record.objects, objects);
    EXPECT_EQ(TimesMapped(TestModulePath("recording")), 1);
}

}  // namespace
}  // namespace zumod
