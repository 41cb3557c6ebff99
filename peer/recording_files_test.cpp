#include "peer/recording_files.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <vector>

#include "tests/support/process/file_content.h"
#include "tests/support/process/work_directory.h"
#include "tests/support/wire/encoded_stream.h"

namespace zumod::peer {
namespace {

namespace fs = std::filesystem;
using Result = FrameSink::Result;
using Names = std::vector<std::string>;

class RecordingFilesTest : public ::testing::Test {
protected:
    RecordingFilesTest() { options.arrival_times = true; }

    std::unique_ptr<RecordingFiles> Create() const {
        return std::move(RecordingFiles::Create(path, options).value());
    }

    // A frame of the camera each 40 ms; a key frame each 60.
    void Record(RecordingFiles& files, int count, Result expected = Result::kTaken) {
        for (int i = 0; i < count; ++i, ++counter) {
            ASSERT_EQ(files.Add(NextFrame(stream)), expected) << counter;
        }
    }
    Frame NextFrame(testing::EncodedStream& from) const {
        return {0, from.Next(counter, 0),
                Clock::time_point(std::chrono::seconds(1) + std::chrono::milliseconds(40) * counter)};
    }

    Names Files() const {
        Names names;
        for (const auto& entry : fs::directory_iterator(work.Path())) {
            names.push_back(entry.path().filename());
        }
        std::ranges::sort(names);
        return names;
    }
    static int Frames(const std::string& file) {
        const std::string command =
            "ffprobe -v error -count_frames -show_entries stream=nb_read_frames -of csv=p=0 '" + file +
            "' 2>&1";
        const std::unique_ptr<FILE, int (*)(FILE*)> out(popen(command.c_str(), "r"), &pclose);
        int frames = -1;
        EXPECT_EQ(std::fscanf(out.get(), "%d", &frames), 1) << file;
        return frames;
    }

    const testing::WorkDirectory work;
    std::string path = work / "film.mkv";
    PeerOptions options;
    testing::EncodedStream stream{320, 240};
    uint32_t counter = 0;
};

TEST_F(RecordingFilesTest, StayOneWithoutAnOption) {
    const auto files = Create();
    Record(*files, 130);
    EXPECT_EQ(files->Name(), path);
    EXPECT_TRUE(files->Finish());
    EXPECT_EQ(Files(), Names{"film.mkv"});
    EXPECT_EQ(Frames(path), 130);
}

TEST_F(RecordingFilesTest, FollowOneAnotherAtTheFirstKeyFrameAfterTheSegment) {
    options.segment = std::chrono::milliseconds(2500);
    const auto files = Create();
    Record(*files, 200);
    EXPECT_EQ(files->Name(), path + " to " + (work / "film-002.mkv"));
    EXPECT_TRUE(files->Finish());
    EXPECT_EQ(Files(), (Names{"film-002.mkv", "film.mkv"}));
    EXPECT_EQ(Frames(path), 120);
    EXPECT_EQ(Frames(work / "film-002.mkv"), 80);
}

TEST_F(RecordingFilesTest, AreCompleteAsSoonAsTheyAreSplit) {
    const auto files = Create();
    Record(*files, 5);
    EXPECT_TRUE(files->Split());
    EXPECT_EQ(Files(), Names{"film.mkv"});
    EXPECT_TRUE(files->Split()) << "there is nothing to split";
    // Up to the next key frame.
    Record(*files, 55, Result::kSkipped);
    Record(*files, 5);
    EXPECT_TRUE(files->Finish());
    EXPECT_EQ(Files(), (Names{"film-002.mkv", "film.mkv"}));
    EXPECT_EQ(Frames(work / "film-002.mkv"), 5);
}

TEST_F(RecordingFilesTest, TakeTheNextFreeNumberAlsoWhenTheyMayReplace) {
    std::ofstream(path) << "old";
    std::ofstream(work / "film-002.mkv") << "not ours";
    options.overwrite = true;
    const auto files = Create();
    Record(*files, 5);
    EXPECT_TRUE(files->Split());
    counter = 60;
    testing::EncodedStream fresh(320, 240);
    EXPECT_EQ(files->Add(NextFrame(fresh)), Result::kTaken);
    EXPECT_TRUE(files->Finish());
    EXPECT_EQ(Files(), (Names{"film-002.mkv", "film-003.mkv", "film.mkv"}));
    EXPECT_EQ(testing::FileContent(work / "film-002.mkv"), "not ours");
    EXPECT_EQ(Frames(path), 5);
}

TEST_F(RecordingFilesTest, EndWhenTheSizeChangesUnlessTheyMayBeSplitThere) {
    {
        testing::EncodedStream other(160, 120);
        const auto files = Create();
        Record(*files, 5);
        EXPECT_EQ(files->Add(NextFrame(other)).error().text,
                  "the size of the pictures changed from 320x240 to 160x120: the recording ends there");
        EXPECT_TRUE(files->Finish());
        EXPECT_EQ(Frames(path), 5);
    }
    options.split_on_format = true;
    options.overwrite = true;
    const auto files = Create();
    testing::EncodedStream first(320, 240);
    testing::EncodedStream other(160, 120);
    for (int i = 0; i < 3; ++i, ++counter) {
        EXPECT_EQ(files->Add(NextFrame(first)), Result::kTaken);
    }
    for (int i = 0; i < 4; ++i, ++counter) {
        EXPECT_EQ(files->Add(NextFrame(other)), Result::kTaken);
    }
    EXPECT_TRUE(files->Finish());
    EXPECT_EQ(Frames(path), 3);
    EXPECT_EQ(Frames(work / "film-002.mkv"), 4);
}

TEST_F(RecordingFilesTest, SmoothTheTimesUnlessThoseOfArrivalAreWanted) {
    const auto recorded = [&](bool arrival_times) {
        options.arrival_times = arrival_times;
        options.overwrite = true;
        testing::EncodedStream fresh(320, 240);
        const auto files = Create();
        for (const int ms : {0, 33, 110, 111, 133}) {
            const Frame frame{0, fresh.Next(0, 0), Clock::time_point(std::chrono::milliseconds(1000 + ms))};
            EXPECT_EQ(files->Add(frame), Result::kTaken);
        }
        EXPECT_TRUE(files->Finish());
        const std::string command =
            "ffprobe -v error -show_entries packet=pts_time -of csv=p=0 '" + path + "'";
        const std::unique_ptr<FILE, int (*)(FILE*)> out(popen(command.c_str(), "r"), &pclose);
        std::vector<double> times(5);
        for (double& time : times) {
            EXPECT_EQ(std::fscanf(out.get(), "%lf", &time), 1);
        }
        return times;
    };
    EXPECT_EQ(recorded(true)[2], 0.110);
    EXPECT_LT(recorded(false)[2], 0.105);
}

// The process may not write a larger file than this.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit limit{bytes, m_before.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &m_before);
        std::signal(SIGXFSZ, SIG_DFL);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit m_before{};
};

class RecordingFilesOnAFullDisk : public RecordingFilesTest,
                                  public ::testing::WithParamInterface<const char*> {};

TEST_P(RecordingFilesOnAFullDisk, KeepTheOldOneAndWhatCanBePlayedOfTheNewOne) {
    path = work / (std::string("film.") + GetParam());
    std::ofstream(path) << "old";
    options.overwrite = true;
    const auto files = Create();
    Expected<Result> added = Result::kTaken;
    Expected<void> finished;
    {
        const FileSizeLimit limit(50'000);
        for (; counter < 2000 && added; ++counter) {
            added = files->Add(NextFrame(stream));
        }
        finished = files->Finish();
    }
    ASSERT_FALSE(added);
    EXPECT_EQ(added.error().text, "the recording cannot be written: File too large");
    ASSERT_FALSE(finished);
    EXPECT_EQ(testing::FileContent(path), "old");
    const Names kept = Files();
    ASSERT_EQ(kept.size(), 2U);
    const std::string& part = kept[0] == path.substr(path.rfind('/') + 1) ? kept[1] : kept[0];
    EXPECT_EQ(part.rfind("film.part-", 0), 0U) << part;
    EXPECT_EQ(fs::path(part).extension(), "." + std::string(GetParam()));
    const int frames = Frames(work / part);
    EXPECT_GT(frames, 20);
    const std::string seconds = SecondsText(std::chrono::milliseconds(40) * frames);
    EXPECT_EQ(finished.error().text,
              "the first " + seconds + " of " + path + " are kept in " + (work / part));
}

INSTANTIATE_TEST_SUITE_P(Formats, RecordingFilesOnAFullDisk, ::testing::Values("mp4", "mkv", "h264"),
                         [](const auto& test) { return std::string(test.param); });

}  // namespace
}  // namespace zumod::peer
