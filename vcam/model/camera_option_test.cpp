#include "vcam/model/camera_option.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

namespace zumod::vcam {
namespace {

std::string ErrorOf(const std::string& text) {
    const auto config = ParseCamera(text);
    return config ? "no error" : config.error().text;
}

TEST(CameraOption, FillsInDefaults) {
    const CameraConfig config = ParseCamera("").value();
    EXPECT_EQ(config.number, -1);
    EXPECT_EQ(config.card, "Virtual Camera");
    EXPECT_EQ(config.formats, (std::vector<uint32_t>{V4L2_PIX_FMT_NV12, V4L2_PIX_FMT_YUYV}));
    EXPECT_EQ(config.sizes, (std::vector<Size>{{640, 480}}));
    EXPECT_EQ(config.rates, (std::vector<Rate>{{30, 1}}));
    EXPECT_FALSE(config.grant);
}

TEST(CameraOption, ReadsEveryKey) {
    const CameraConfig config =
        ParseCamera(
            "device=5,card=Front Camera,bus=pci-1,formats=MJPG:BGR4,sizes=642x480:1280x720,"
            "fps=30000/1001:15,adjust=width,parm=fixed,padding=64,stride=asked,buffers=8,"
            "fault=unplug/30,fault=drop/3/2")
            .value();
    EXPECT_EQ(config.number, 5);
    EXPECT_EQ(config.card, "Front Camera");
    EXPECT_EQ(config.bus, "pci-1");
    EXPECT_EQ(config.formats, (std::vector<uint32_t>{V4L2_PIX_FMT_MJPEG, V4L2_PIX_FMT_BGR32}));
    EXPECT_EQ(config.sizes, (std::vector<Size>{{642, 480}, {1280, 720}}));
    EXPECT_EQ(config.rates, (std::vector<Rate>{{30000, 1001}, {15, 1}}));
    EXPECT_EQ(config.size_policy, SizePolicy::kWidth);
    EXPECT_EQ(config.rate_support, RateSupport::kFixed);
    EXPECT_EQ(config.padding, 64U);
    EXPECT_TRUE(config.keeps_stride);
    EXPECT_EQ(config.grant, 8U);
    EXPECT_EQ(config.faults,
              (std::vector<Fault>{ParseFault("unplug/30").value(), ParseFault("drop/3/2").value()}));
}

TEST(CameraOption, ReadsModes) {
    const CameraConfig config =
        ParseCamera("mode=MJPG/1280x720/30:15,mode=YUYV/1280x720/10,mode=YUYV/640x480/30000/1001:15").value();
    EXPECT_EQ(config.modes, (std::vector<Mode>{{V4L2_PIX_FMT_MJPEG, {1280, 720}, {{30, 1}, {15, 1}}},
                                               {V4L2_PIX_FMT_YUYV, {1280, 720}, {{10, 1}}},
                                               {V4L2_PIX_FMT_YUYV, {640, 480}, {{30000, 1001}, {15, 1}}}}));
}

TEST(CameraOption, MakesAModeOfEveryFormatAndSizeWithAllRates) {
    const CameraConfig config = ParseCamera("formats=NV12:YUYV,sizes=640x480:320x240,fps=30:15").value();
    const std::vector<Rate> rates{{30, 1}, {15, 1}};
    EXPECT_EQ(config.modes, (std::vector<Mode>{{V4L2_PIX_FMT_NV12, {640, 480}, rates},
                                               {V4L2_PIX_FMT_NV12, {320, 240}, rates},
                                               {V4L2_PIX_FMT_YUYV, {640, 480}, rates},
                                               {V4L2_PIX_FMT_YUYV, {320, 240}, rates}}));
}

TEST(CameraOption, CountsTheCharactersOfANameNotItsBytes) {
    std::string name;
    for (int i = 0; i < 31; ++i) {
        name += "\u00e4";
    }
    EXPECT_EQ(ParseCamera("card=" + name).value().card, name);
    EXPECT_EQ(ErrorOf("card=" + name + "\u00e4"), "card must have 1 to 31 characters");
}

// The name of a file with one picture of 16x16 and this in its header, which goes away with it.
class FilmFile {
public:
    explicit FilmFile(const std::string& header) {
        std::ofstream(m_path, std::ios::binary) << "YUV4MPEG2 W16 H16" << header << "\nFRAME\n"
                                                << std::string(384, 'A');
    }
    ~FilmFile() { std::remove(m_path.c_str()); }
    CameraConfig Configure(const std::string& options = "") const {
        return ParseCamera("y4m=" + m_path + options).value();
    }

private:
    std::string m_path = ::testing::TempDir() + "m_zu_vcam_film" + std::to_string(getpid()) + ".y4m";
};

TEST(CameraOption, TakesSizeAndRateOfAFile) {
    const CameraConfig config = FilmFile(" F24000:1001").Configure();
    EXPECT_EQ(config.sizes, (std::vector<Size>{{16, 16}}));
    EXPECT_EQ(config.rates, (std::vector<Rate>{{24000, 1001}}));
}

TEST(CameraOption, PrefersTheGivenRateToThatOfAFile) {
    EXPECT_EQ(FilmFile(" F25:1").Configure(",fps=10").rates, (std::vector<Rate>{{10, 1}}));
}

TEST(CameraOption, IgnoresARateOfAFileThatIsNotOne) {
    for (const char* header : {"", " F0:0", " F30", " F5000:1", " F:", " Fa:b", " F99999999999:1"}) {
        EXPECT_EQ(FilmFile(header).Configure().rates, (std::vector<Rate>{{30, 1}})) << header;
    }
}

TEST(CameraOption, KeepsCommasInQuotes) {
    const CameraConfig config = ParseCamera("card=\"Left, upper\",fps=25").value();
    EXPECT_EQ(config.card, "Left, upper");
    EXPECT_EQ(config.rates[0].numerator, 25U);
}

TEST(CameraOption, ReportsAnErrorInOneLine) {
    EXPECT_EQ(ErrorOf("colour=red"), "unknown key \"colour\"");
    EXPECT_EQ(ErrorOf("card"), "expected KEY=VALUE, not \"card\"");
    EXPECT_EQ(ErrorOf("formats=NV12:XYZ"),
              "unknown format \"XYZ\"; there are NV12 NV21 YU12 YV12 YUYV BGR4 MJPG");
    EXPECT_EQ(ErrorOf("sizes=641x480"),
              "a size is WIDTHxHEIGHT, both even and from 16 to 8192, not \"641x480\"");
    EXPECT_EQ(ErrorOf("sizes=640"), "a size is WIDTHxHEIGHT, both even and from 16 to 8192, not \"640\"");
    EXPECT_EQ(ErrorOf("fps=0"), "a rate is N or N/D frames per second, at most 1000, not \"0\"");
    EXPECT_EQ(ErrorOf("fps=1001"), "a rate is N or N/D frames per second, at most 1000, not \"1001\"");
    EXPECT_EQ(ErrorOf("device=-1"), "device must be 0 to 255, not \"-1\"");
    EXPECT_EQ(ErrorOf("card="), "card must have 1 to 31 characters");
    EXPECT_EQ(ErrorOf("card=01234567890123456789012345678901"), "card must have 1 to 31 characters");
    EXPECT_EQ(ErrorOf("adjust=up"), "adjust must be exact, width or nearest, not \"up\"");
    EXPECT_EQ(ErrorOf("parm=maybe"), "parm must be settable, fixed or none, not \"maybe\"");
    EXPECT_EQ(ErrorOf("padding=5000"), "padding must be 0 to 4096 bytes, not \"5000\"");
    EXPECT_EQ(ErrorOf("stride=wide"), "stride must be driver or asked, not \"wide\"");
    EXPECT_EQ(ErrorOf("mode=YUYV/640x480"),
              "a mode is FORMAT/WIDTHxHEIGHT/RATE:RATE..., not \"YUYV/640x480\"");
    EXPECT_EQ(ErrorOf("mode=XYZ/640x480/30"),
              "unknown format \"XYZ\"; there are NV12 NV21 YU12 YV12 YUYV BGR4 MJPG");
    EXPECT_EQ(ErrorOf("mode=YUYV/641x480/30"),
              "a size is WIDTHxHEIGHT, both even and from 16 to 8192, not \"641x480\"");
    EXPECT_EQ(ErrorOf("mode=YUYV/640x480/0"),
              "a rate is N or N/D frames per second, at most 1000, not \"0\"");
    for (const char* other : {"formats=NV12", "sizes=640x480", "fps=30"}) {
        EXPECT_EQ(ErrorOf(std::string("mode=YUYV/640x480/30,") + other),
                  "mode and one of formats, sizes, fps and y4m exclude each other");
    }
    EXPECT_EQ(ErrorOf("buffers=33"), "buffers must be 0 to 32, not \"33\"");
    EXPECT_EQ(ErrorOf("y4m=/nonexistent"), "y4m file \"/nonexistent\": cannot be opened");
    EXPECT_EQ(ErrorOf("fault=fire"), "unknown fault \"fire\"");
}

TEST(CameraOption, DescribesEveryFault) {
    const std::string text = DescribeOptions();
    for (const FaultRow& fault : FaultRows()) {
        EXPECT_NE(text.find(std::string("  ") + fault.name + " "), std::string::npos) << fault.name;
    }
    for (const char* key : {"device", "card", "formats", "sizes", "fps", "adjust", "parm", "padding",
                            "stride", "buffers", "y4m", "fault", "bus", "mode"}) {
        EXPECT_NE(text.find(std::string("  ") + key + " "), std::string::npos) << key;
    }
}

TEST(CameraOption, ReadsSourcesOfLivePictures) {
    const std::string fifo = ::testing::TempDir() + "zu-source:" + std::to_string(getpid());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const CameraConfig raw = ParseCamera("source=raw:NV12:1280x720:" + fifo).value();
    const CameraConfig y4m = ParseCamera("source=y4m:" + fifo).value();
    unlink(fifo.c_str());
    EXPECT_EQ(raw.source, (LiveSource{LiveSource::kRaw, fifo, V4L2_PIX_FMT_NV12, {1280, 720}}));
    EXPECT_EQ(raw.sizes, (std::vector<Size>{{1280, 720}}));
    EXPECT_EQ(y4m.source, (LiveSource{LiveSource::kY4m, fifo, 0, {}}));
    EXPECT_EQ(ParseCamera("source=feed").value().source.kind, LiveSource::kFeed);
    EXPECT_FALSE(ParseCamera("").value().source.IsLive());
}

TEST(CameraOption, RefusesMalformedSources) {
    const std::string usage = "a source is y4m:FIFO, raw:FORMAT:WIDTHxHEIGHT:FIFO or feed, not ";
    for (const char* text :
         {"", "y4m", "y4m:", "feed:x", "/dev/video0", "raw:NV12:16x16", "raw:NV12:16x16:"}) {
        EXPECT_EQ(ErrorOf(std::string("source=") + text), usage + '"' + text + '"');
    }
    EXPECT_EQ(ErrorOf("source=raw:NV12:16x15:/tmp/f"),
              "a size is WIDTHxHEIGHT, both even and from 16 to 8192, not \"16x15\"");
    EXPECT_EQ(ErrorOf("source=raw:BGR4:16x16:/tmp/f"), "raw pictures cannot be BGR4");
    EXPECT_EQ(ErrorOf("source=raw:MJPG:16x16:/tmp/f"), "raw pictures cannot be MJPG");
    EXPECT_EQ(ErrorOf("source=raw:NV12:8192x8192:/tmp/f"), "raw pictures can have at most 4096x2304 pixels");
    EXPECT_EQ(ErrorOf("source=y4m:/dev/null"),
              "source \"/dev/null\": there is no FIFO of this name (see mkfifo)");
    EXPECT_EQ(ErrorOf("source=y4m:/nonexistent"),
              "source \"/nonexistent\": there is no FIFO of this name (see mkfifo)");
}

}  // namespace
}  // namespace zumod::vcam
