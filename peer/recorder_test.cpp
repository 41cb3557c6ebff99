#include "peer/recorder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>

#include "tests/support/process/file_content.h"
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

// A file that can be limited as by a full disk.
class Output final : public RecordingOutput {
public:
    explicit Output(const std::string& path) : m_path(path), m_file(path, std::ios::binary) {}

    bool CanSeek() const override { return true; }
    int WriteAt(int64_t position, std::span<const uint8_t> bytes) override {
        if (position + static_cast<int64_t>(bytes.size()) > limit) {
            return ENOSPC;
        }
        m_file.seekp(position);
        m_file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        m_file.flush();
        return 0;
    }
    // A copy of what has been written so far, as after a kill.
    std::string Copy() const {
        const std::string copy = m_path + ".copy";
        std::filesystem::copy_file(m_path, copy, std::filesystem::copy_options::overwrite_existing);
        return copy;
    }

    int64_t limit = std::numeric_limits<int64_t>::max();

private:
    const std::string m_path;
    std::ofstream m_file;
};

// A recorder with its parser and its file.
class ParsingRecorder {
public:
    ParsingRecorder(const std::string& path, int fps, bool live = false)
        : output(path),
          m_recorder(
              Recorder::Create({.format = RecordingFormat(path), .fps = fps, .live = live, .title = "Front"},
                               output)
                  .value()) {}

    Expected<bool> Add(std::span<const uint8_t> frame, Clock::time_point time) {
        return m_recorder->Add(m_parser.Parse(frame).value(), time);
    }
    Expected<void> Finish() { return m_recorder->Finish(); }
    Recorder* operator->() { return m_recorder.get(); }

    Output output;

private:
    StreamParser m_parser = StreamParser::Create().value();
    std::unique_ptr<Recorder> m_recorder;
};

class RecorderTest : public ::testing::TestWithParam<const char*> {
protected:
    std::string Path() const { return work / (std::string("out.") + GetParam()); }

    std::unique_ptr<ParsingRecorder> Create() const { return std::make_unique<ParsingRecorder>(Path(), 30); }

    const testing::WorkDirectory work;
    testing::EncodedStream stream{320, 240};
};

// The formats with time stamps, and the one that contains only the frames.
class TimedRecorderTest : public RecorderTest {};
class BareRecorderTest : public RecorderTest {};

class Mp4RecorderTest : public ::testing::Test {
protected:
    const testing::WorkDirectory work;
    testing::EncodedStream stream{320, 240};
};

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

TEST_P(TimedRecorderTest, StampsFramesWithTheirTimes) {
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

TEST_P(RecorderTest, ContinuesWhenTheEncoderStatesAnotherRate) {
    testing::EncodedStream slower(320, 240);
    const auto recorder = Create();
    for (int i = 0; i < 30; ++i) {
        ASSERT_EQ(recorder->Add(stream.Next(static_cast<uint32_t>(i), 0), At(66 * i)), true);
    }
    const Bytes first = slower.Next(30, 0);
    const auto restated = StreamParser::Create().value().Parse(first).value().packet;
    StateRate(*restated, {15, 1});
    const Bytes key(restated->data, restated->data + restated->size);
    ASSERT_NE(key, first);
    ASSERT_EQ(recorder->Add(key, At(66 * 30)), true);
    for (int i = 31; i < 60; ++i) {
        ASSERT_EQ(recorder->Add(slower.Next(static_cast<uint32_t>(i), 0), At(66 * i)), true);
    }
    EXPECT_TRUE(recorder->Finish());
    const Played played = Play(Path());
    EXPECT_EQ(played.decoded, 60);
    ASSERT_EQ(played.keys.size(), 60U);
    for (size_t i = 0; i < 60; ++i) {
        EXPECT_EQ(played.keys[i], i % 30 == 0) << i;
    }
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

TEST_P(RecorderTest, CanBePlayedUpToTheLastSecondWhileItIsWritten) {
    const auto recorder = Create();
    for (int i = 0; i < 270; ++i) {
        ASSERT_EQ(recorder->Add(stream.Next(static_cast<uint32_t>(i), 0), At(i * 100 / 3)), true);
        // What is not on the disk is less than a second old.
        if (i % 30 == 17 && i > 30) {
            EXPECT_GE(Play(recorder->output.Copy()).decoded, i - 29) << i;
        }
    }
}

TEST_P(RecorderTest, WritesWhatItHoldsWhenNoFrameArrives) {
    const auto recorder = Create();
    EXPECT_EQ((*recorder)->FlushDue(), Clock::time_point::max());
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(recorder->Add(stream.Next(static_cast<uint32_t>(i), 0), At(33 * i)), true);
    }
    EXPECT_EQ((*recorder)->FlushDue(), At(1000));
    EXPECT_TRUE((*recorder)->Flush());
    EXPECT_EQ((*recorder)->FlushDue(), Clock::time_point::max());
    EXPECT_EQ(Play(recorder->output.Copy()).decoded, 10);
    ASSERT_EQ(recorder->Add(stream.Next(10, 0), At(5000)), true);
    EXPECT_TRUE(recorder->Finish());
    EXPECT_EQ(Play(Path()).decoded, 11);
}

TEST_P(RecorderTest, CanBePlayedUpToWhereTheDiskIsFull) {
    const auto recorder = Create();
    recorder->output.limit = 60'000;
    Expected<bool> added = true;
    for (int i = 0; i < 600 && added; ++i) {
        added = recorder->Add(stream.Next(static_cast<uint32_t>(i), 0), At(i * 100 / 3));
    }
    ASSERT_FALSE(added);
    EXPECT_EQ(added.error().text, "the recording cannot be written: No space left on device");
    EXPECT_TRUE((*recorder)->HasFailedToWrite());
    EXPECT_EQ(recorder->Finish().error().text, "the recording cannot be written: No space left on device");
    const std::string copy = recorder->output.Copy();
    std::filesystem::resize_file(copy, static_cast<uintmax_t>((*recorder)->PlayableBytes()));
    const auto seconds = std::chrono::duration<double>((*recorder)->PlayableTime()).count();
    EXPECT_GT(seconds, 0.5);
    EXPECT_NEAR(Play(copy).decoded / 30.0, seconds, 0.04);
}

TEST_P(RecorderTest, FailsOnADiskThatIsFullFromTheBeginning) {
    const auto recorder = Create();
    recorder->output.limit = 0;
    Expected<bool> added = true;
    for (uint32_t i = 0; i < 60 && added; ++i) {
        added = recorder->Add(stream.Next(i, 0), At(33 * static_cast<int>(i)));
    }
    EXPECT_EQ(added.error().text, "the recording cannot be written: No space left on device");
    EXPECT_EQ((*recorder)->PlayableTime(), Clock::duration::zero());
}

// The value of an entry as ffprobe prints it.
std::string Probed(const std::string& path, const std::string& entry) {
    const std::string command =
        "ffprobe -v error -show_entries " + entry + " -of csv=p=0 '" + path + "' 2>&1";
    const std::unique_ptr<FILE, int (*)(FILE*)> out(popen(command.c_str(), "r"), &pclose);
    char line[256] = {};
    EXPECT_NE(std::fgets(line, sizeof line, out.get()), nullptr);
    std::string text = line;
    text.resize(std::min(text.find('\n'), text.size()));
    return text;
}

TEST_P(TimedRecorderTest, StatesTheNameOfTheCameraAndTheTime) {
    const auto recorder = Create();
    EXPECT_EQ(recorder->Add(stream.Next(0, 0), At(0)), true);
    EXPECT_TRUE(recorder->Finish());
    EXPECT_EQ(Probed(Path(), "format_tags=title"), "Front");
    const std::string created = Probed(Path(), "format_tags=creation_time");
    std::tm utc{};
    ASSERT_NE(strptime(created.c_str(), "%Y-%m-%dT%H:%M:%S", &utc), nullptr) << created;
    EXPECT_NEAR(static_cast<double>(timegm(&utc)), static_cast<double>(std::time(nullptr)), 60);
}

TEST_P(TimedRecorderTest, HasTheLengthOfItsFramesAlsoAfterPauses) {
    const auto recorder = Create();
    for (int i = 0; i < 150; ++i) {
        ASSERT_EQ(recorder->Add(stream.Next(static_cast<uint32_t>(i), 0), At(40 * i + (i < 75 ? 0 : 2000))),
                  true);
    }
    EXPECT_TRUE(recorder->Finish());
    EXPECT_NEAR(std::stod(Probed(Path(), "format=duration")), 8.0, 0.05);
    const Played played = Play(Path());
    ASSERT_EQ(played.times_ms.size(), 150U);
    EXPECT_EQ(played.times_ms[74], 2960);
    EXPECT_EQ(played.times_ms[75], 5000);
    EXPECT_EQ(played.times_ms[149], 7960);
}

// The position in the file of the first picture that is read after a seek.
int64_t PositionAfterSeek(const std::string& path, int64_t ms) {
    AVFormatContext* file = nullptr;
    EXPECT_EQ(avformat_open_input(&file, path.c_str(), nullptr, nullptr), 0);
    const int64_t stamp = av_rescale_q(ms, {1, 1000}, file->streams[0]->time_base);
    EXPECT_GE(av_seek_frame(file, 0, stamp, AVSEEK_FLAG_BACKWARD), 0);
    const AvOwner<AVPacket> packet(av_packet_alloc());
    EXPECT_EQ(av_read_frame(file, packet.get()), 0);
    EXPECT_EQ(av_rescale_q(packet->pts, file->streams[0]->time_base, {1, 1000}), ms);
    const int64_t position = packet->pos;
    avformat_close_input(&file);
    return position;
}

TEST_F(Mp4RecorderTest, IsIndexedInFrontOnceItIsFinished) {
    const std::string path = work / "out.mp4";
    ParsingRecorder recorder(path, 30);
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(recorder.Add(stream.Next(static_cast<uint32_t>(i), 0), At(40 * i)), true);
    }
    const std::string unfinished = testing::FileContent(path);
    EXPECT_EQ(unfinished.find("sidx"), std::string::npos);
    EXPECT_LT(unfinished.find("free"), unfinished.find("moof"));
    EXPECT_TRUE(recorder.Finish());
    const std::string content = testing::FileContent(path);
    ASSERT_LT(content.find("moov"), content.find("sidx"));
    ASSERT_LT(content.find("sidx"), content.find("moof"));
    // A key frame each 60 frames; the entries and what is behind the index lead to the fragments.
    const auto number = [&](size_t at) {
        size_t value = 0;
        for (size_t i = 0; i < 4; ++i) {
            value = value << 8 | static_cast<uint8_t>(content.at(at + i));
        }
        return value;
    };
    const size_t box = content.find("sidx") - 4;
    ASSERT_EQ(number(box + 36), 5U);
    size_t fragment = box + number(box) + number(box + 32);
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(content.substr(fragment + 4, 4), "moof") << i;
        fragment += number(box + 40 + 12 * i);
        EXPECT_EQ(number(box + 44 + 12 * i), 2.4 * 90000) << i;
    }
    EXPECT_EQ(content.substr(fragment + 4, 4), "mfra");
    // Without reading the pictures before it.
    EXPECT_GT(PositionAfterSeek(path, 7200), static_cast<int64_t>(content.size() / 2));
}

// What the parameter sets state, and how long a copy into another container becomes.
TEST_P(BareRecorderTest, StatesTheMeasuredRate) {
    const auto recorder = Create();
    // Requested were 30 frames per second.
    for (int i = 0; i < 150; ++i) {
        ASSERT_EQ(recorder->Add(stream.Next(static_cast<uint32_t>(i), 0), At(i * 200 / 3)), true);
    }
    EXPECT_TRUE(recorder->Finish());
    EXPECT_EQ(Probed(Path(), "stream=r_frame_rate"), "15/1");
    EXPECT_EQ(Play(Path()).decoded, 150);
    const std::string copy = work / "copy.mkv";
    ASSERT_EQ(std::system(("ffmpeg -nostdin -v quiet -i '" + Path() + "' -c copy '" + copy + "'").c_str()),
              0);
    EXPECT_NEAR(std::stod(Probed(copy, "format=duration")), 10.0, 0.1);
}

INSTANTIATE_TEST_SUITE_P(Formats, RecorderTest, ::testing::Values("mp4", "mkv", "h264"),
                         [](const auto& test) { return std::string(test.param); });

INSTANTIATE_TEST_SUITE_P(Formats, TimedRecorderTest, ::testing::Values("mp4", "mkv"),
                         [](const auto& test) { return std::string(test.param); });
INSTANTIATE_TEST_SUITE_P(Formats, BareRecorderTest, ::testing::Values("h264"),
                         [](const auto& test) { return std::string(test.param); });

}  // namespace
}  // namespace zumod::peer
