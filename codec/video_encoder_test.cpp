#include "codec/video_encoder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "common/av_objects.h"
#include "tests/support/doubles/codec_calls.h"
#include "tests/support/doubles/picture_pattern.h"
#include "tests/support/doubles/recording_host.h"

namespace zumod::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

const std::vector<uint32_t> kAllFormats = {kNv12, kNv21, kI420, kYv12, kYuy2, 0};

LogLine OpenedLine(const std::string& size, const std::string& bit_rate) {
    return {1, "[zu-codec] encode " + size + " with libx264, " + bit_rate +
                   " bits a second, a key frame every 60, 30 pictures a second"};
}

// The rate that the parameter sets of a key frame state, as a player reads it.
std::string StatedRate(const std::vector<uint8_t>& stream) {
    const AvOwner<AVCodecContext> context(avcodec_alloc_context3(nullptr));
    context->codec_id = AV_CODEC_ID_H264;
    context->ticks_per_frame = 2;  // as each H.264 decoder sets it
    AVCodecParserContext* const parser = av_parser_init(AV_CODEC_ID_H264);
    parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    uint8_t* data = nullptr;
    int size = 0;
    av_parser_parse2(parser, context.get(), &data, &size, stream.data(), static_cast<int>(stream.size()),
                     AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    av_parser_close(parser);
    return std::to_string(context->framerate.num) + '/' + std::to_string(context->framerate.den);
}

class VideoEncoderTest : public LoggingTest {
protected:
    VideoEncoderTest() {
        interval = kCameraInterval;
        CreateEncoder({.source_rgb = true});
    }

    // The encoder's clock: each picture comes this much after the one before.
    static constexpr std::chrono::microseconds kCameraInterval{33'333};
    static inline std::chrono::microseconds now{0};
    static inline std::chrono::microseconds interval = kCameraInterval;

    void CreateEncoder(const EncoderPolicy& policy) {
        encoder = CRefPtr_T<CVideoEncoder>(new CVideoEncoder(policy, [] { return now += interval; }));
    }
    std::vector<uint8_t> Encode(const TestPicture& picture) {
        return Encoded(*encoder, picture.record, picture.bytes);
    }
    void AllowHardware() {
        const CRefPtr_T<IZUModData> yes(new CountedData(ledger, kZUModDataBool, {1}));
        EXPECT_TRUE(encoder->SetProperty("zu.codec.property.hardware", yes.Get()));
    }
    void SetText(const char* key, const std::string& text) {
        host.SetProperty(key, CRefPtr_T<IZUModData>(
                                  new CountedData(ledger, kZUModDataText, CountedData::TextBytes(text))));
    }
    // The indices of the key pictures among the first `count`.
    std::vector<int> KeyPictures(int count, int width = 64, int height = 48) {
        std::vector<int> keys;
        for (int i = 0; i < count; ++i) {
            const auto kinds = UnitKinds(Encode(Paint(kI420, {width, height, 4 * i})));
            EXPECT_FALSE(kinds.empty());
            if (std::find(kinds.begin(), kinds.end(), 5) != kinds.end()) {
                keys.push_back(i);
            }
        }
        return keys;
    }

    ReferenceLedger ledger;
    CRefPtr_T<CVideoEncoder> encoder;
};

TEST_F(VideoEncoderTest, TheFirstPictureIsAKeyFrameAfterItsHeaders) {
    const auto kinds = UnitKinds(Encode(Paint(kNv12, {320, 240})));
    ASSERT_GE(kinds.size(), 3U);
    EXPECT_EQ(kinds[0], 7);
    EXPECT_EQ(kinds[1], 8);
    EXPECT_EQ(kinds.back(), 5);
    EXPECT_THAT(host.Lines(), ElementsAre(OpenedLine("320x240", "345600")));
}

TEST_F(VideoEncoderTest, EachCallReturnsTheBytesOfItsPicture) {
    Encode(Paint(kNv12, {320, 240}));
    for (int i = 1; i < 10; ++i) {
        EXPECT_THAT(UnitKinds(Encode(Paint(kNv12, {320, 240, 8 * i}))), ElementsAre(1)) << i;
    }
}

TEST_F(VideoEncoderTest, AKeyFrameComesEverySixtyPictures) {
    EXPECT_THAT(KeyPictures(125), ElementsAre(0, 60, 120));
}

TEST_F(VideoEncoderTest, TheHostSetsTheKeyInterval) {
    SetText("zu.codec.keyint", "7");
    EXPECT_THAT(KeyPictures(20), ElementsAre(0, 7, 14));
    EXPECT_THAT(host.Lines(), ElementsAre(LogLine{1,
                                                  "[zu-codec] encode 64x48 with libx264, 100000 bits a "
                                                  "second, a key frame every 7, 30 pictures a second"}));
}

TEST_F(VideoEncoderTest, TheHeadersAreRepeatedWithEachKeyFrame) {
    SetText("zu.codec.keyint", "2");
    Encode(Paint(kI420, {64, 48}));
    Encode(Paint(kI420, {64, 48}));
    const auto kinds = UnitKinds(Encode(Paint(kI420, {64, 48})));
    ASSERT_GE(kinds.size(), 3U);
    EXPECT_EQ(kinds[0], 7);
    EXPECT_EQ(kinds[1], 8);
}

TEST_F(VideoEncoderTest, TheHeadersAreAPropertyIfThePolicyKeepsThemOutOfTheStream) {
    CreateEncoder({.no_stream_header = true});
    EXPECT_EQ(encoder->GetProperty("zu.codec.property.stream.header"), nullptr);
    const auto kinds = UnitKinds(Encode(Paint(kI420, {64, 48})));
    ASSERT_FALSE(kinds.empty());
    EXPECT_EQ(std::count(kinds.begin(), kinds.end(), 7) + std::count(kinds.begin(), kinds.end(), 8), 0);
    IZUModData* header = encoder->GetProperty("zu.codec.property.stream.header");
    ASSERT_NE(header, nullptr);
    EXPECT_EQ(header->GetType(), kZUModDataBlock);
    const auto* bytes = static_cast<const uint8_t*>(header->GetBlock());
    const auto header_kinds = UnitKinds({bytes, bytes + header->GetSize()});
    ASSERT_GE(header_kinds.size(), 2U);
    EXPECT_EQ(header_kinds[0], 7);
    EXPECT_EQ(header_kinds[1], 8);
}

TEST_F(VideoEncoderTest, WithTheHeadersInTheStreamThereIsNoProperty) {
    Encode(Paint(kI420, {64, 48}));
    EXPECT_EQ(encoder->GetProperty("zu.codec.property.stream.header"), nullptr);
}

TEST_F(VideoEncoderTest, TheHostsBitRateIsKept) {
    const auto total = [&] {
        size_t bytes = 0;
        for (int i = 0; i < 60; ++i) {
            bytes += Encode(Paint(kI420, {320, 240, 8 * i})).size();
        }
        return bytes;
    };
    SetText("zu.codec.bitrate", "100000");
    const size_t low = total();
    EXPECT_LT(low, 2U * 100000 / 8 * 3 / 2) << "two seconds of data";
    CreateEncoder({});
    SetText("zu.codec.bitrate", "2000000");
    EXPECT_GT(total(), 2 * low);
}

TEST_F(VideoEncoderTest, NoiseDoesNotBurstTheBitRate) {
    SetText("zu.codec.bitrate", "600000");
    std::mt19937 random(7);
    TestPicture picture = Paint(kI420, {320, 240});
    size_t total = 0;
    for (int i = 0; i < 30; ++i) {
        std::generate(picture.bytes.begin(), picture.bytes.end(),
                      [&] { return static_cast<uint8_t>(random()); });
        total += Encode(picture).size();
    }
    EXPECT_LT(total, 2U * 600000 / 8) << "one second of data, and one of reserve";
}

TEST_F(VideoEncoderTest, ASmallerBufferMakesTheLargestPictureSmaller) {
    // Of pictures that suddenly become noise.
    const auto largest = [&](const char* buffer_ms) {
        SetText("zu.codec.bitrate", "600000");
        SetText("zu.codec.buffer", buffer_ms);
        CreateEncoder({});
        std::mt19937 random(7);
        size_t size = 0;
        for (int i = 0; i < 20; ++i) {
            TestPicture picture = Paint(kI420, {320, 240});
            if (i >= 10) {
                std::generate(picture.bytes.begin(), picture.bytes.end(),
                              [&] { return static_cast<uint8_t>(96 + random() % 64); });
            }
            size = std::max(size, Encode(picture).size());
        }
        return size;
    };
    EXPECT_LT(2 * largest("50"), largest("1000"));
}

TEST_F(VideoEncoderTest, GapsBetweenCallsHalveTheBitsForAWhile) {
    SetText("zu.codec.bitrate", "600000");
    CreateEncoder({});
    std::mt19937 random(7);
    std::vector<TestPicture> noise(8, Paint(kI420, {320, 240}));
    for (TestPicture& picture : noise) {
        std::generate(picture.bytes.begin(), picture.bytes.end(),
                      [&] { return static_cast<uint8_t>(112 + random() % 32); });
    }
    const auto bytes_of = [&](size_t count) {
        size_t bytes = 0;
        for (size_t i = 0; i < count; ++i) {
            bytes += Encode(noise[i % noise.size()]).size();
        }
        return bytes;
    };
    bytes_of(48);
    const size_t before = bytes_of(24);
    interval = 2 * kCameraInterval;
    bytes_of(8);
    interval = kCameraInterval;
    bytes_of(16);
    const size_t slow = bytes_of(24);
    bytes_of(120);
    const size_t after = bytes_of(24);
    EXPECT_LT(slow, before * 7 / 10);
    EXPECT_GT(after, before * 9 / 10);
}

TEST_F(VideoEncoderTest, AKeyFrameStatesTheMeasuredRate) {
    struct {
        std::chrono::microseconds interval;
        int pictures;  // in four seconds, and the first one
        std::string rate;
        std::string line;
    } const cameras[] = {
        {std::chrono::microseconds(66'667), 61, "15/1", "50000 bits a second, a key frame every 60, 15"},
        {std::chrono::microseconds(133'333), 33, "15/2", "25000 bits a second, a key frame every 60, 7.5"},
        {std::chrono::microseconds(20'000), 201, "50/1", "100000 bits a second, a key frame every 60, 50"},
    };
    const TestPicture picture = Paint(kI420, {64, 48});
    for (const auto& camera : cameras) {
        interval = camera.interval;
        CreateEncoder({});
        host.TakeLines();
        for (int i = 0; i + 1 < camera.pictures; ++i) {
            const auto stream = Encode(picture);
            EXPECT_EQ(UnitKinds(stream).at(0), i % 60 == 0 ? 7 : 1) << i;
            if (i % 60 == 0) {
                EXPECT_EQ(StatedRate(stream), "30/1");
            }
        }
        const auto stream = Encode(picture);
        EXPECT_EQ(UnitKinds(stream).at(0), 7);
        EXPECT_EQ(StatedRate(stream), camera.rate);
        EXPECT_THAT(host.TakeLines(), ElementsAre(OpenedLine("64x48", "100000"),
                                                  LogLine{1, "[zu-codec] encode 64x48 with libx264, " +
                                                                 camera.line + " pictures a second"}));
        EXPECT_EQ(UnitKinds(Encode(picture)).at(0), 1) << "once";
    }
}

TEST_F(VideoEncoderTest, AFurtherSizeStartsWithTheMeasuredRate) {
    interval = 2 * kCameraInterval;
    KeyPictures(65);
    EXPECT_EQ(StatedRate(Encode(Paint(kI420, {96, 48}))), "15/1");
}

TEST_F(VideoEncoderTest, ASlowerStreamGetsAsManyBitsPerPicture) {
    SetText("zu.codec.bitrate", "300000");
    std::mt19937 random(7);
    std::vector<TestPicture> noise(8, Paint(kI420, {320, 240}));
    for (TestPicture& picture : noise) {
        std::generate(picture.bytes.begin(), picture.bytes.end(),
                      [&] { return static_cast<uint8_t>(112 + random() % 32); });
    }
    const auto bytes_of = [&](int count) {
        size_t bytes = 0;
        for (int i = 0; i < count; ++i) {
            bytes += Encode(noise[static_cast<size_t>(i) % noise.size()]).size();
        }
        return static_cast<double>(bytes);
    };
    interval = 3 * kCameraInterval;
    CreateEncoder({});
    bytes_of(20);
    const double before = bytes_of(20);  // as many as at 30 pictures per second
    KeyPictures(20, 320, 240);
    EXPECT_THAT(host.Lines().back().text, HasSubstr("100000 bits a second, a key frame every 60, 10 "));
    bytes_of(20);
    const double after = bytes_of(20);
    EXPECT_NEAR(after / before, 1.0, 0.15);
}

TEST_F(VideoEncoderTest, EachThreadEncodesASliceOfThePicture) {
    const auto slices = [&](const char* threads) {
        SetText("zu.codec.threads", threads);
        CreateEncoder({});
        const auto kinds = UnitKinds(Encode(Paint(kI420, {640, 480})));
        return std::count(kinds.begin(), kinds.end(), 5);
    };
    EXPECT_EQ(slices("1"), 1);
    EXPECT_EQ(slices("2"), 2);
    EXPECT_EQ(slices("4"), 4);
}

TEST_F(VideoEncoderTest, ThePresetOfTheHostIsUsed) {
    // The fastest preset has no arithmetic coding; the parameter set says whether it is used.
    const auto parameter_set = [&] {
        CreateEncoder({.no_stream_header = true});
        Encode(Paint(kI420, {64, 48}));
        IZUModData* header = encoder->GetProperty("zu.codec.property.stream.header");
        const auto* bytes = static_cast<const uint8_t*>(header->GetBlock());
        return std::vector<uint8_t>(bytes, bytes + header->GetSize());
    };
    const auto fastest = parameter_set();
    SetText("zu.codec.preset", "medium");
    EXPECT_NE(parameter_set(), fastest);
    SetText("zu.codec.preset", "warp");
    EXPECT_EQ(parameter_set(), fastest);
}

TEST_F(VideoEncoderTest, AFileRecordKeepsTheQualityInsteadOfTheBitRate) {
    const auto bytes_of_last = [&](bool file_record) {
        CreateEncoder({.file_record = file_record});
        SetText("zu.codec.bitrate", "20000");
        size_t size = 0;
        for (int i = 0; i < 30; ++i) {
            size = Encode(Paint(kI420, {320, 240, 8 * i})).size();
        }
        return size;
    };
    EXPECT_GT(bytes_of_last(true), 2 * bytes_of_last(false));
}

TEST_F(VideoEncoderTest, AChangeOfSizeReopensTheEncoderAndStartsWithAKeyFrame) {
    Encode(Paint(kNv12, {320, 240}));
    const auto kinds = UnitKinds(Encode(Paint(kNv12, {640, 480})));
    EXPECT_EQ(kinds.at(0), 7);
    EXPECT_THAT(UnitKinds(Encode(Paint(kNv12, {640, 480, 8}))), ElementsAre(1));
    EXPECT_EQ(UnitKinds(Encode(Paint(kNv12, {320, 240}))).at(0), 7);
    EXPECT_THAT(host.Lines(), ElementsAre(OpenedLine("320x240", "345600"), OpenedLine("640x480", "1382400"),
                                          OpenedLine("320x240", "345600")));
}

TEST_F(VideoEncoderTest, AChangeOfFormatReopensTheEncoderOnlyIfItsInputChanges) {
    Encode(Paint(kI420, {64, 48}));
    EXPECT_THAT(UnitKinds(Encode(Paint(kYv12, {64, 48}))), ElementsAre(1));
    EXPECT_THAT(UnitKinds(Encode(Paint(kYuy2, {64, 48}))), ElementsAre(1));
    EXPECT_EQ(UnitKinds(Encode(Paint(kNv12, {64, 48}))).at(0), 7);
}

TEST_F(VideoEncoderTest, APictureWithTooFewBytesIsRefused) {
    TestPicture picture = Paint(kNv12, {640, 480});
    picture.bytes.pop_back();
    EncodeCall call(picture.bytes.data(), picture.bytes.size());
    EXPECT_FALSE(EncodeWith(*encoder, picture.record, call));
    EXPECT_EQ(call.prepared, 0);
    EXPECT_THAT(host.Lines(),
                ElementsAre(LogLine{2,
                                    "[zu-codec] picture refused, the picture has too few bytes: 640x480, "
                                    "stride 640, format 0x3231564e, 460799 bytes"}));
}

TEST_F(VideoEncoderTest, AfterARefusedPictureTheNextIsEncoded) {
    Encode(Paint(kNv12, {64, 48}));
    TestPicture cut = Paint(kNv12, {64, 48});
    cut.bytes.resize(100);
    EXPECT_THAT(Encode(cut), IsEmpty());
    EXPECT_THAT(UnitKinds(Encode(Paint(kNv12, {64, 48}))), ElementsAre(1));
}

TEST_F(VideoEncoderTest, ARecordThatDescribesNoPictureIsRefused) {
    const std::vector<uint8_t> bytes(100000);
    const VideoInputFormat wrong[] = {{0, 48, 64, 8, kNv12},   {64, 0, 64, 8, kNv12},
                                      {-64, 48, 64, 8, kNv12}, {64, -48, 64, 8, kNv12},
                                      {64, 48, 0, 8, kNv12},   {64, 48, -64, 8, kNv12},
                                      {64, 48, 63, 8, kNv12},  {64, 48, 256, 24, 0},
                                      {64, 48, 64, 8, 12345},  {INT32_MAX, 1, INT32_MAX, 8, kNv12}};
    for (const VideoInputFormat& record : wrong) {
        EXPECT_THAT(Encoded(*encoder, record, bytes), IsEmpty());
        EXPECT_THAT(host.TakeLines(), SizeIs(1));
    }
}

TEST_F(VideoEncoderTest, WithoutARecordThePictureIsRefused) {
    const std::vector<uint8_t> bytes(100000);
    EncodeCall call(bytes.data(), bytes.size());
    EXPECT_EQ(encoder->SetInputFormat(nullptr), 0);
    EXPECT_FALSE(encoder->Encode(&call));
    EXPECT_THAT(host.Lines(), SizeIs(1));
}

TEST_F(VideoEncoderTest, WithoutBytesOrArgumentsThePictureIsRefused) {
    EncodeCall call(nullptr, 460800);
    EXPECT_FALSE(EncodeWith(*encoder, RecordFor(kNv12, 640, 480), call));
    EXPECT_FALSE(encoder->Encode(nullptr));
    EXPECT_THAT(host.Lines(), ElementsAre(LogLine{2, "[zu-codec] picture refused, there are no bytes"},
                                          LogLine{2, "[zu-codec] encode without arguments"}));
}

TEST_F(VideoEncoderTest, BgrIsRefusedUnlessThePolicyAllowsIt) {
    CreateEncoder({});
    EXPECT_THAT(Encode(Paint(0, {64, 48})), IsEmpty());
    EXPECT_THAT(host.TakeLines(),
                ElementsAre(LogLine{2, "[zu-codec] picture refused, BGR was not asked for"}));
    EXPECT_FALSE(Encode(Paint(kYuy2, {64, 48})).empty()) << "also converted, but not RGB";
}

TEST_F(VideoEncoderTest, TheFastConversionHasAnotherResult) {
    const TestPicture picture = Paint(0, {320, 240});
    const auto fine = Encode(picture);
    CreateEncoder({.fast_conversion = true, .source_rgb = true});
    const auto fast = Encode(picture);
    EXPECT_FALSE(fast.empty());
    EXPECT_NE(fast, fine);
}

TEST_F(VideoEncoderTest, AnOutputBufferThatDoesNotGrowIsAFailure) {
    const TestPicture picture = Paint(kNv12, {64, 48});
    EncodeCall call(picture.bytes.data(), picture.bytes.size());
    call.capacity = 5;
    EXPECT_FALSE(EncodeWith(*encoder, picture.record, call));
    EXPECT_EQ(host.Lines().back().level, 4U);
    EXPECT_THAT(host.Lines(), SizeIs(2));
}

TEST_F(VideoEncoderTest, IfNoHardwareOpensOneLineIsLoggedAndTheSoftwareEncodes) {
    if (access("/dev/dri/renderD128", F_OK) == 0 || access("/dev/video10", F_OK) == 0) {
        GTEST_SKIP() << "this machine may have a hardware encoder";
    }
    AllowHardware();
    EXPECT_THAT(host.Lines(), IsEmpty()) << "not before the first picture";
    EXPECT_EQ(UnitKinds(Encode(Paint(kNv12, {320, 240}))).at(0), 7);
    EXPECT_THAT(host.TakeLines(),
                ElementsAre(LogLine{1, "[zu-codec] no hardware encoder opens, the software encoder is used"},
                            OpenedLine("320x240", "345600")));
    Encode(Paint(kNv12, {640, 480}));
    EXPECT_THAT(host.Lines(), ElementsAre(OpenedLine("640x480", "1382400"))) << "not tried again";
}

TEST_F(VideoEncoderTest, IfMemoryRunsOutThePictureFailsAndTheNextIsEncoded) {
    const TestPicture picture = Paint(kI420, {64, 48, 0});
    host.OnLineWith("[zu-codec] encode 64x48", [] { throw std::bad_alloc(); });
    EXPECT_THAT(Encode(picture), IsEmpty());
    EXPECT_THAT(Encode(picture), Not(IsEmpty()));
}

TEST_F(VideoEncoderTest, NothingIsPrinted) {
    ::testing::internal::CaptureStderr();
    AllowHardware();
    for (const uint32_t format : kAllFormats) {
        Encode(Paint(format, {640, 480}));
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(VideoEncoderTest, ASmallestPictureOfEachFormatIsEncoded) {
    for (const uint32_t format : kAllFormats) {
        for (const auto& [width, height] : {std::pair{1, 1}, {2, 2}, {3, 1}, {1, 3}, {16, 16}, {17, 5}}) {
            EXPECT_FALSE(Encode(Paint(format, {width, height})).empty())
                << format << ' ' << width << 'x' << height;
        }
    }
}

// Bytes between two inaccessible pages, next to one or the other.
class GuardedBytes {
public:
    explicit GuardedBytes(size_t size)
        : m_page(static_cast<size_t>(sysconf(_SC_PAGESIZE))),
          m_inner((size + m_page - 1) / m_page * m_page),
          m_map(static_cast<uint8_t*>(mmap(nullptr, m_inner + 2 * m_page, PROT_READ | PROT_WRITE,
                                           MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))),
          m_size(size) {
        mprotect(m_map, m_page, PROT_NONE);
        mprotect(m_map + m_page + m_inner, m_page, PROT_NONE);
    }
    ~GuardedBytes() { munmap(m_map, m_inner + 2 * m_page); }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    uint8_t* AtTheStart() const { return m_map + m_page; }
    uint8_t* AtTheEnd() const { return m_map + m_page + m_inner - m_size; }

private:
    size_t m_page;
    size_t m_inner;
    uint8_t* m_map;
    size_t m_size;
};

TEST_F(VideoEncoderTest, NoByteOutsideThePictureIsRead) {
    std::vector<std::pair<int, int>> sizes = {{2, 2},  {6, 4},   {18, 2},    {256, 2},
                                              {34, 6}, {64, 48}, {160, 120}, {130, 98}};
#if !defined(__SANITIZE_THREAD__)
    // These take minutes with data-race checking, which has nothing to find here.
    sizes.insert(sizes.end(), {{640, 480}, {642, 480}, {641, 479}});
#endif
    for (const bool fast : {false, true}) {
        CreateEncoder({.fast_conversion = fast, .source_rgb = true});
        for (const uint32_t format : kAllFormats) {
            for (const auto& [width, height] : sizes) {
                const Pattern pattern{width, height};
                const VideoInputFormat record = RecordFor(format, width, height);
                for (const int stride : {record.stride, record.stride + 4}) {
                    const TestPicture picture = PaintWithStride(format, pattern, stride);
                    const GuardedBytes guarded(picture.bytes.size());
                    for (uint8_t* bytes : {guarded.AtTheEnd(), guarded.AtTheStart()}) {
                        std::memcpy(bytes, picture.bytes.data(), picture.bytes.size());
                        EncodeCall call(bytes, picture.bytes.size());
                        EXPECT_TRUE(EncodeWith(*encoder, picture.record, call));
                    }
                }
            }
        }
    }
}

TEST_F(VideoEncoderTest, ThePicturesBytesAreNotWrittenTo) {
    for (const uint32_t format : kAllFormats) {
        const TestPicture picture = Paint(format, {641, 479});
        const GuardedBytes guarded(picture.bytes.size());
        std::memcpy(guarded.AtTheStart(), picture.bytes.data(), picture.bytes.size());
        mprotect(guarded.AtTheStart(), picture.bytes.size(), PROT_READ);
        EncodeCall call(guarded.AtTheStart(), picture.bytes.size());
        EXPECT_TRUE(EncodeWith(*encoder, picture.record, call));
    }
}

}  // namespace
}  // namespace zumod::testing
