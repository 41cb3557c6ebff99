#include "vcam/model/camera_option.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

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
                            "stride", "buffers", "y4m", "fault", "bus"}) {
        EXPECT_NE(text.find(std::string("  ") + key + " "), std::string::npos) << key;
    }
}

}  // namespace
}  // namespace zumod::vcam
