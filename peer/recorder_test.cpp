#include "peer/recorder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/support/process/work_directory.h"
#include "tests/support/wire/encoded_stream.h"

namespace zumod::peer {
namespace {

using std::chrono::milliseconds;
using Bytes = std::vector<uint8_t>;

Clock::time_point At(int ms) {
    return Clock::time_point(milliseconds(1000 + ms));
}

// What a player finds in a file.
struct Played {
    int width = 0;
    int height = 0;
    std::vector<int64_t> times_ms;
    std::vector<bool> keys;
    int decoded = 0;
};

Played Play(const std::string& path) {
    Played played;
    AVFormatContext* file = nullptr;
    EXPECT_EQ(avformat_open_input(&file, path.c_str(), nullptr, nullptr), 0);
    if (file == nullptr) {
        return played;
    }
    EXPECT_GE(avformat_find_stream_info(file, nullptr), 0);
    EXPECT_EQ(file->nb_streams, 1U);
    const AVStream& stream = *file->streams[0];
    played.width = stream.codecpar->width;
    played.height = stream.codecpar->height;
    const AvOwner<AVCodecContext> decoder(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264)));
    avcodec_parameters_to_context(decoder.get(), stream.codecpar);
    decoder->err_recognition = AV_EF_EXPLODE;
    EXPECT_EQ(avcodec_open2(decoder.get(), nullptr, nullptr), 0);
    const AvOwner<AVPacket> packet(av_packet_alloc());
    const AvOwner<AVFrame> frame(av_frame_alloc());
    const auto decode = [&](const AVPacket* next) {
        EXPECT_EQ(avcodec_send_packet(decoder.get(), next), 0);
        while (avcodec_receive_frame(decoder.get(), frame.get()) == 0) {
            ++played.decoded;
        }
    };
    while (av_read_frame(file, packet.get()) == 0) {
        played.times_ms.push_back(av_rescale_q(packet->pts, stream.time_base, {1, 1000}));
        played.keys.push_back((packet->flags & AV_PKT_FLAG_KEY) != 0);
        decode(packet.get());
        av_packet_unref(packet.get());
    }
    decode(nullptr);
    avformat_close_input(&file);
    return played;
}

class RecorderTest : public ::testing::TestWithParam<const char*> {
protected:
    std::string Path() const { return work / (std::string("out.") + GetParam()); }

    std::unique_ptr<Recorder> Create() const {
        return Recorder::Create(Path(), RecordingFormat(Path()), 30).value();
    }

    const testing::WorkDirectory work;
    testing::EncodedStream stream{320, 240};
};

// The formats with time stamps, and the one that contains only the frames.
class TimedRecorderTest : public RecorderTest {};
class BareRecorderTest : public RecorderTest {};

TEST(RecordingFormat, FollowsFromTheName) {
    EXPECT_STREQ(RecordingFormat("a.mp4"), "mp4");
    EXPECT_STREQ(RecordingFormat("/b.c/a.mkv"), "matroska");
    EXPECT_STREQ(RecordingFormat("a.mp4.h264"), "h264");
    for (const char* none : {"", "a", "mp4", "a.mp4/b", "a.MP4", "a.mp4 ", "-"}) {
        EXPECT_EQ(RecordingFormat(none), nullptr) << none;
    }
}

TEST_P(RecorderTest, KeepsEveryFrameInAFileThatDecodes) {
    const auto recorder = Create();
    for (int i = 0; i < 70; ++i) {
        ASSERT_EQ(recorder->Add(stream.Next(static_cast<uint32_t>(i), 0), At(33 * i)), true);
    }
    EXPECT_TRUE(recorder->Finish());
    const Played played = Play(Path());
    EXPECT_EQ(played.width, 320);
    EXPECT_EQ(played.height, 240);
    EXPECT_EQ(played.decoded, 70);
    ASSERT_EQ(played.keys.size(), 70U);
    for (size_t i = 0; i < 70; ++i) {
        EXPECT_EQ(played.keys[i], i % 60 == 0) << i;
    }
}

TEST_P(BareRecorderTest, ContainsTheFramesUnchanged) {
    Bytes sent;
    const auto recorder = Create();
    for (int i = 0; i < 5; ++i) {
        const Bytes frame = stream.Next(static_cast<uint32_t>(i), 0);
        EXPECT_EQ(recorder->Add(frame, At(33 * i)), true);
        sent.insert(sent.end(), frame.begin(), frame.end());
    }
    EXPECT_TRUE(recorder->Finish());
    std::ifstream file(Path(), std::ios::binary);
    EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()), sent);
}

TEST_P(TimedRecorderTest, StampsFramesWithTheirTimesOfArrival) {
    const auto recorder = Create();
    for (const int ms : {0, 40, 41, 500, 2000}) {
        EXPECT_EQ(recorder->Add(stream.Next(0, 0), At(ms)), true);
    }
    EXPECT_TRUE(recorder->Finish());
    EXPECT_EQ(Play(Path()).times_ms, (std::vector<int64_t>{0, 40, 41, 500, 2000}));
}

TEST_P(RecorderTest, OrdersFramesThatArrivedAtOnce) {
    const auto recorder = Create();
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(recorder->Add(stream.Next(0, 0), At(0)), true);
    }
    EXPECT_TRUE(recorder->Finish());
    EXPECT_EQ(Play(Path()).decoded, 4);
}

TEST_P(RecorderTest, BeginsWithAKeyFrame) {
    const auto recorder = Create();
    stream.Next(0, 0);
    for (uint32_t i = 1; i < 60; ++i) {
        EXPECT_EQ(recorder->Add(stream.Next(i, 0), At(0)), false);
    }
    EXPECT_EQ(recorder->Add(stream.Next(60, 0), At(2000)), true);
    EXPECT_EQ(recorder->Add(stream.Next(61, 0), At(2033)), true);
    EXPECT_TRUE(recorder->Finish());
    EXPECT_EQ(Play(Path()).decoded, 2);
}

TEST_P(RecorderTest, SkipsBytesThatAreNotAFrameAtTheBeginning) {
    const auto recorder = Create();
    EXPECT_EQ(recorder->Add(Bytes{0}, At(0)), false);
    EXPECT_EQ(recorder->Add(Bytes(1000, 0xFF), At(0)), false);
    EXPECT_EQ(recorder->Add(Bytes{0, 0, 0, 1, 0x65, 1, 2, 3}, At(0)), false);
    EXPECT_TRUE(recorder->Finish());
    EXPECT_EQ(std::filesystem::file_size(Path()), 0U);
}

TEST_P(RecorderTest, FailsWhenTheSizeOfThePicturesChanges) {
    testing::EncodedStream other(160, 120);
    const auto recorder = Create();
    EXPECT_EQ(recorder->Add(stream.Next(0, 0), At(0)), true);
    const auto added = recorder->Add(other.Next(0, 0), At(33));
    ASSERT_FALSE(added);
    EXPECT_EQ(added.error().text,
              "the size of the pictures changed from 320x240 to 160x120: the recording ends there");
    EXPECT_TRUE(recorder->Finish());
    EXPECT_EQ(Play(Path()).decoded, 1);
}

TEST_P(RecorderTest, FailsOnAFullDisk) {
    // Every write to this file fails as on a full disk.
    const auto recorder = Recorder::Create("/dev/full", RecordingFormat(Path()), 30).value();
    Expected<bool> added = true;
    for (uint32_t i = 0; i < 600 && added; ++i) {
        added = recorder->Add(stream.Next(i, 0), At(33 * static_cast<int>(i)));
    }
    const auto finished = recorder->Finish();
    const std::string error = !added ? added.error().text : !finished ? finished.error().text : "";
    EXPECT_EQ(error.rfind("the recording cannot be written: ", 0), 0U) << error;
}

TEST_P(RecorderTest, NeedsAFileItCanWrite) {
    EXPECT_FALSE(Recorder::Create(work / "none/out", RecordingFormat(Path()), 30));
}

INSTANTIATE_TEST_SUITE_P(Formats, RecorderTest, ::testing::Values("mp4", "mkv", "h264"),
                         [](const auto& test) { return std::string(test.param); });

INSTANTIATE_TEST_SUITE_P(Formats, TimedRecorderTest, ::testing::Values("mp4", "mkv"),
                         [](const auto& test) { return std::string(test.param); });
INSTANTIATE_TEST_SUITE_P(Formats, BareRecorderTest, ::testing::Values("h264"),
                         [](const auto& test) { return std::string(test.param); });

}  // namespace
}  // namespace zumod::peer
