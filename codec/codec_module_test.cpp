// The built codec module, used as another program uses it: through its file, its descriptor and its slots.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "tests/support/doubles/codec_calls.h"
#include "tests/support/doubles/picture_pattern.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/process/captured_stdout.h"
#include "tests/support/process/elf_file.h"
#include "tests/support/watch/mappings.h"
#include "tests/support/watch/process_state.h"

extern "C" {
#include <libavcodec/version_major.h>
#include <libavutil/macros.h>
}

namespace zumod::testing {
namespace {

using ::testing::ElementsAre;

constexpr size_t kDecode = 20;

bool DecodeWith(IVDecoder& decoder, DecodeCall& call) {
    return CallSlot<bool>(&decoder, kDecode, static_cast<IVDecArgs*>(&call));
}

class CodecModuleTest : public ::testing::Test {
protected:
    CodecModuleTest() { EXPECT_EQ(module.Descriptor().attach_runtime(&host), 1); }
    ~CodecModuleTest() override {
        encoder = nullptr;
        module.Descriptor().detach_runtime();
    }

    CRefPtr_T<IVDecoder> NewDecoder(VideoTargetFormat target) {
        return module.Create<IVDecoder>(*DecoderPolicyFor(ledger, target));
    }
    // Encodes and decodes one picture. Returns its PSNR, or 0 if there is none.
    double RoundTrip(const TestPicture& picture, const Pattern& pattern, VideoTargetFormat target) {
        const auto own_encoder = module.Create<IVEncoder>(*EncoderPolicyFor(ledger));
        const auto stream = Encoded(*own_encoder, picture.record, picture.bytes);
        const auto decoder = NewDecoder(target);
        double psnr = 0;
        DecodeCall call(stream, [&](const VideoDecodedPicture& decoded) {
            EXPECT_EQ(decoded.width, pattern.width + pattern.width % 2);
            EXPECT_EQ(decoded.height, pattern.height + pattern.height % 2);
            EXPECT_EQ(decoded.key_frame, 1);
            psnr = PsnrOf(decoded, pattern);
        });
        EXPECT_TRUE(DecodeWith(*decoder, call));
        EXPECT_EQ(call.pictures, 1);
        return psnr;
    }

    RecordingHost host;
    ReferenceLedger ledger;
    CodecModule module{ZU_CODEC_FILE};
    CRefPtr_T<IVEncoder> encoder = module.Create<IVEncoder>(*EncoderPolicyFor(ledger));
};

TEST_F(CodecModuleTest, EveryFieldOfTheDescriptorIsRight) {
    const ZUModDescriptor& descriptor = module.Descriptor();
    EXPECT_EQ(descriptor.version, 0x0001000000000000U);
    EXPECT_STREQ(descriptor.name, "zu-codec");
    EXPECT_NE(descriptor.attach_runtime, nullptr);
    EXPECT_NE(descriptor.detach_runtime, nullptr);
    EXPECT_NE(descriptor.create, nullptr);
    EXPECT_THAT(descriptor.build_stamp,
                ::testing::MatchesRegex("[A-Z][a-z]{2} [ 1-3][0-9] 20[0-9]{2} [0-2][0-9](:[0-5][0-9]){2}"));
}

TEST_F(CodecModuleTest, AttachingANullHostIsRefusedAndDetachesTheHostBefore) {
    EXPECT_EQ(module.Descriptor().attach_runtime(nullptr), 0);
    const CapturedStdout captured;
    module.Descriptor().create(nullptr, nullptr);
    EXPECT_EQ(captured.Text(), "[zu-codec] create refused, invalid parameter\n");
    EXPECT_TRUE(host.Lines().empty());
}

TEST_F(CodecModuleTest, LogsToTheHostAndToStandardOutputWithoutOne) {
    module.Descriptor().create(nullptr, nullptr);
    EXPECT_THAT(host.TakeLines(), ElementsAre(LogLine{4, "[zu-codec] create refused, invalid parameter"}));
    const CapturedStdout captured;
    module.Descriptor().detach_runtime();
    module.Descriptor().create(nullptr, nullptr);
    EXPECT_EQ(captured.Text(), "[zu-codec] create refused, invalid parameter\n");
    EXPECT_TRUE(host.Lines().empty());
}

TEST_F(CodecModuleTest, RefusesAnotherImageType) {
    const auto policy = EncoderPolicyFor(ledger);
    policy->SetInt64("zu.codec.policy.imagetype", 10);
    EXPECT_EQ(module.Create<IVEncoder>(*policy), nullptr);
    EXPECT_THAT(host.Lines(), ElementsAre(LogLine{4, "[zu-codec] create refused, unknown image type 10"}));
}

struct Size {
    int width;
    int height;
};

void PrintTo(const Size& size, std::ostream* out) {
    *out << size.width << 'x' << size.height;
}

class CodecRoundTripTest : public CodecModuleTest, public ::testing::WithParamInterface<Size> {
protected:
    void ExpectKept(uint32_t format, VideoTargetFormat target) {
        const Pattern pattern{GetParam().width, GetParam().height};
        EXPECT_GE(RoundTrip(Paint(format, pattern), pattern, target), 36.0);
    }
};

TEST_P(CodecRoundTripTest, KeepsNv12) {
    ExpectKept(kNv12, kVideoTargetI420);
}
TEST_P(CodecRoundTripTest, KeepsNv21) {
    ExpectKept(kNv21, kVideoTargetNv12);
}
TEST_P(CodecRoundTripTest, KeepsI420) {
    ExpectKept(kI420, kVideoTargetI420);
}
TEST_P(CodecRoundTripTest, KeepsYv12) {
    ExpectKept(kYv12, kVideoTargetI420);
}
TEST_P(CodecRoundTripTest, KeepsYuy2) {
    ExpectKept(kYuy2, kVideoTargetI420);
}
TEST_P(CodecRoundTripTest, KeepsBgr) {
    ExpectKept(0, kVideoTargetBgr32);
}

INSTANTIATE_TEST_SUITE_P(Sizes, CodecRoundTripTest,
                         ::testing::Values(Size{640, 480}, Size{1280, 720}, Size{642, 480}, Size{641, 479}),
                         [](const auto& size) {
                             return std::to_string(size.param.width) + "x" +
                                    std::to_string(size.param.height);
                         });

TEST_F(CodecModuleTest, PaddedRowsDoNotShearThePicture) {
    const Pattern pattern{320, 180};
    for (const uint32_t format : {kNv12, kNv21, kI420, kYv12}) {
        EXPECT_GE(RoundTrip(PaintWithStride(format, pattern, 640), pattern, kVideoTargetI420), 36.0)
            << format;
    }
    EXPECT_GE(RoundTrip(PaintWithStride(kYuy2, pattern, 1280), pattern, kVideoTargetI420), 36.0);
    EXPECT_GE(RoundTrip(PaintWithStride(0, pattern, 2048), pattern, kVideoTargetBgr32), 36.0);
}

TEST_F(CodecModuleTest, RowsWithoutPaddingDoNotShearThePicture) {
    const Pattern pattern{642, 480};
    for (const uint32_t format : {kNv12, kI420}) {
        EXPECT_GE(RoundTrip(PaintWithStride(format, pattern, 642), pattern, kVideoTargetI420), 36.0)
            << format;
    }
}

TEST_F(CodecModuleTest, BytesAfterThePictureAreIgnored) {
    const Pattern pattern{320, 180};
    TestPicture picture = Paint(kNv12, pattern);
    picture.bytes.resize(picture.bytes.size() + 4099);
    EXPECT_GE(RoundTrip(picture, pattern, kVideoTargetI420), 36.0);
}

TEST_F(CodecModuleTest, OneDecoderFollowsAStreamWhoseSizeAndFormatChange) {
    const auto decoder = NewDecoder(kVideoTargetI420);
    int shift = 0;
    for (const auto& [width, height] : {std::pair{320, 240}, {640, 480}, {161, 121}, {320, 240}}) {
        for (const uint32_t format : {kNv12, kYuy2, kYv12}) {
            for (int i = 0; i < 3; ++i) {
                const Pattern pattern{width, height, shift += 4};
                const TestPicture picture = Paint(format, pattern);
                const auto stream = Encoded(*encoder, picture.record, picture.bytes);
                double psnr = 0;
                DecodeCall call(stream,
                                [&](const VideoDecodedPicture& decoded) { psnr = PsnrOf(decoded, pattern); });
                EXPECT_TRUE(DecodeWith(*decoder, call));
                EXPECT_EQ(call.pictures, 1) << "one picture in, one out";
                EXPECT_GE(psnr, 30.0) << format << ' ' << width << 'x' << height << ' ' << i;
            }
        }
    }
}

TEST_F(CodecModuleTest, ManyEncodersWorkAtOnce) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([this, i] {
            ReferenceLedger own_ledger;
            const auto own = module.Create<IVEncoder>(*EncoderPolicyFor(own_ledger));
            for (int picture = 0; picture < 10; ++picture) {
                const TestPicture painted = Paint(i == 0 ? 0 : kNv12, {160, 120, picture});
                EXPECT_FALSE(Encoded(*own, painted.record, painted.bytes).empty());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(CodecModuleFile, ExportsItsEntryPointAndNothingElse) {
    std::vector<std::string> exports;
    for (const ElfFile::Symbol& symbol : ElfFile(ZU_CODEC_FILE).Symbols(SHT_DYNSYM)) {
        if (symbol.defined && symbol.binding != STB_LOCAL) {
            exports.push_back(symbol.name);
        }
    }
    EXPECT_THAT(exports, ElementsAre("zumod_get_entrypoint"));
}

TEST(CodecModuleFile, HasNoUniqueSymbol) {
    const auto symbols = ElfFile(ZU_CODEC_FILE).Symbols(SHT_SYMTAB);
    ASSERT_FALSE(symbols.empty()) << "the test needs the full symbol table";
    for (const ElfFile::Symbol& symbol : symbols) {
        EXPECT_FALSE(symbol.defined && symbol.binding == STB_GNU_UNIQUE) << symbol.name;
    }
}

TEST(CodecModuleFile, BindsAllSymbolsAtLoadAndIsReadOnlyAfterwards) {
    const ElfFile file(ZU_CODEC_FILE);
    EXPECT_TRUE(file.Segment(PT_GNU_RELRO).has_value());
    EXPECT_NE(file.Dynamic(DT_FLAGS).value_or(0) & DF_BIND_NOW, 0U);
    EXPECT_EQ(file.Dynamic(DT_FLAGS_1).value_or(0) & DF_1_NODELETE, 0U);
    EXPECT_FALSE(file.Dynamic(DT_RUNPATH).has_value());
}

TEST(CodecModuleFile, LoadsWorksAndUnloadsTwentyTimes) {
    const auto threads = CountThreads();
    for (int round = 0; round < 20 && !HasFailure(); ++round) {
        {
            RecordingHost host;
            ReferenceLedger ledger;
            const CodecModule module(ZU_CODEC_FILE);
            EXPECT_EQ(TimesMapped(ZU_CODEC_FILE), 1);
            EXPECT_EQ(module.Descriptor().attach_runtime(&host), 1);
            {
                const auto encoder = module.Create<IVEncoder>(*EncoderPolicyFor(ledger));
                const TestPicture picture = Paint(round % 2 == 0 ? 0 : kNv12, {160, 120});
                const auto stream = Encoded(*encoder, picture.record, picture.bytes);
                EXPECT_FALSE(stream.empty());
                const auto decoder = module.Create<IVDecoder>(*DecoderPolicyFor(ledger, kVideoTargetBgr32));
                DecodeCall call(stream, [](const VideoDecodedPicture&) {});
                EXPECT_TRUE(DecodeWith(*decoder, call));
            }
            module.Descriptor().detach_runtime();
            EXPECT_TRUE(ledger.Balanced());
        }
        EXPECT_EQ(TimesMapped(ZU_CODEC_FILE), 0) << "round " << round;
    }
    EXPECT_TRUE(ThreadsComeTo(threads));
    EXPECT_NE(dlopen("libavcodec.so." AV_STRINGIFY(LIBAVCODEC_VERSION_MAJOR), RTLD_LAZY | RTLD_NOLOAD),
              nullptr)
        << "each load would leak what its libraries leak";
}

}  // namespace
}  // namespace zumod::testing
