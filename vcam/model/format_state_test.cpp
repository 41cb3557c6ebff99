#include "vcam/model/format_state.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "vcam/testing/requests.h"
#include "vcam/testing/test_rig.h"

namespace zumod::vcam {
namespace {

const FaultSet kNoFaults{};

// What TRY_FMT makes of a request.
v4l2_pix_format Tried(const std::string& options, const v4l2_format& request) {
    const FormatState state(Configure(options), kNoFaults);
    v4l2_format format = request;
    EXPECT_EQ(state.TryFormat(format), 0);
    return format.fmt.pix;
}

Size TriedSize(const std::string& options, Size size) {
    const v4l2_pix_format pix = Tried(options, Format(size.width, size.height, V4L2_PIX_FMT_NV12));
    return {pix.width, pix.height};
}

TEST(FormatState, ReportsItsIdentityAndCapabilities) {
    FormatState state(Configure("card=Front Camera,device=3"), kNoFaults);
    v4l2_capability capability{};
    ASSERT_EQ(state.QueryCapability(capability, 3), 0);
    EXPECT_STREQ(reinterpret_cast<const char*>(capability.driver), "zu-vcam");
    EXPECT_STREQ(reinterpret_cast<const char*>(capability.card), "Front Camera");
    EXPECT_STREQ(reinterpret_cast<const char*>(capability.bus_info), "usb-zu-vcam-3");
    EXPECT_EQ(capability.device_caps, 0x04200001U);
    EXPECT_EQ(capability.capabilities, 0x84200001U);
}

TEST(FormatState, ListsItsFormatsInTheGivenOrderAndThenEnds) {
    FormatState state(Configure("formats=MJPG:YUYV"), kNoFaults);
    v4l2_fmtdesc format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(state.EnumFormat(format), 0);
    EXPECT_EQ(format.pixelformat, V4L2_PIX_FMT_MJPEG);
    EXPECT_EQ(format.flags, V4L2_FMT_FLAG_COMPRESSED);
    format.index = 1;
    ASSERT_EQ(state.EnumFormat(format), 0);
    EXPECT_EQ(format.pixelformat, V4L2_PIX_FMT_YUYV);
    EXPECT_EQ(format.flags, 0U);
    format.index = 2;
    EXPECT_EQ(state.EnumFormat(format), EINVAL);
}

// As many USB cameras: compressed pictures are fast, raw ones slow, and raw ones are not there in every size.
constexpr char kPerFormat[] =
    "mode=MJPG/1280x720/30:15,mode=YUYV/1280x720/10,mode=YUYV/640x480/30:15,mode=MJPG/1920x1080/30";

// All sizes of a format, as ENUM_FRAMESIZES lists them.
std::vector<Size> ListedSizes(const FormatState& state, uint32_t fourcc) {
    std::vector<Size> listed;
    v4l2_frmsizeenum sizes{};
    sizes.pixel_format = fourcc;
    for (; state.EnumSizes(sizes) == 0; ++sizes.index) {
        listed.push_back({sizes.discrete.width, sizes.discrete.height});
    }
    return listed;
}

// Frames per second of a format and size, as ENUM_FRAMEINTERVALS lists them.
std::vector<uint32_t> ListedRates(const FormatState& state, uint32_t fourcc, Size size) {
    std::vector<uint32_t> listed;
    v4l2_frmivalenum intervals{};
    intervals.pixel_format = fourcc;
    intervals.width = size.width;
    intervals.height = size.height;
    for (; state.EnumIntervals(intervals) == 0; ++intervals.index) {
        EXPECT_EQ(intervals.discrete.numerator, 1U);
        listed.push_back(intervals.discrete.denominator);
    }
    return listed;
}

TEST(FormatState, MayHaveSizesAndRatesPerFormat) {
    const FormatState state(Configure(kPerFormat), kNoFaults);
    EXPECT_EQ(ListedSizes(state, V4L2_PIX_FMT_MJPEG), (std::vector<Size>{{1280, 720}, {1920, 1080}}));
    EXPECT_EQ(ListedSizes(state, V4L2_PIX_FMT_YUYV), (std::vector<Size>{{1280, 720}, {640, 480}}));
    EXPECT_EQ(ListedSizes(state, V4L2_PIX_FMT_NV12), std::vector<Size>());
    EXPECT_EQ(ListedRates(state, V4L2_PIX_FMT_MJPEG, {1280, 720}), (std::vector<uint32_t>{30, 15}));
    EXPECT_EQ(ListedRates(state, V4L2_PIX_FMT_YUYV, {1280, 720}), (std::vector<uint32_t>{10}));
    EXPECT_EQ(ListedRates(state, V4L2_PIX_FMT_YUYV, {640, 480}), (std::vector<uint32_t>{30, 15}));
    EXPECT_EQ(ListedRates(state, V4L2_PIX_FMT_MJPEG, {640, 480}), std::vector<uint32_t>());
    v4l2_fmtdesc format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.index = 1;
    EXPECT_EQ(state.EnumFormat(format), 0);
    EXPECT_EQ(format.pixelformat, V4L2_PIX_FMT_YUYV);
    format.index = 2;
    EXPECT_EQ(state.EnumFormat(format), EINVAL) << "each format once";
}

TEST(FormatState, ChoosesASizeThatTheFormatHas) {
    const v4l2_pix_format pix = Tried(kPerFormat, Format(1920, 1080, V4L2_PIX_FMT_YUYV));
    EXPECT_EQ((Size{pix.width, pix.height}), (Size{1280, 720}));
}

TEST(FormatState, KeepsTheRateIfTheNewFormatHasItAndTakesItsFirstOtherwise) {
    FormatState state(Configure(kPerFormat), kNoFaults);
    EXPECT_EQ(state.CurrentRate(), (Rate{30, 1}));
    v4l2_format format = Format(1280, 720, V4L2_PIX_FMT_YUYV);
    ASSERT_EQ(state.SetFormat(format, false), 0);
    EXPECT_EQ(state.CurrentRate(), (Rate{10, 1}));
    format = Format(640, 480, V4L2_PIX_FMT_YUYV);
    ASSERT_EQ(state.SetFormat(format, false), 0);
    EXPECT_EQ(state.CurrentRate(), (Rate{30, 1}));
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.timeperframe = {1, 12};
    ASSERT_EQ(state.SetParm(parm, false), 0);
    EXPECT_EQ(state.CurrentRate(), (Rate{15, 1})) << "the nearest of this format and size";
    format = Format(1280, 720, V4L2_PIX_FMT_MJPEG);
    ASSERT_EQ(state.SetFormat(format, false), 0);
    EXPECT_EQ(state.CurrentRate(), (Rate{15, 1})) << "this one has it as well";
}

TEST(FormatState, CutsANameThatIsTooLongBehindAWholeCharacter) {
    // 30 letters and a character of 2 bytes: 32 bytes do not fit beside the final 0.
    FormatState state(Configure("card=abcdefghijklmnopqrstuvwxyz0123\u00e4"), kNoFaults);
    v4l2_capability capability{};
    ASSERT_EQ(state.QueryCapability(capability, 0), 0);
    EXPECT_STREQ(reinterpret_cast<const char*>(capability.card), "abcdefghijklmnopqrstuvwxyz0123");
}

TEST(FormatState, ChoosesTheNearestOfItsSizes) {
    const std::string options = "sizes=640x480:1280x720,adjust=nearest";
    EXPECT_EQ(TriedSize(options, {800, 600}), (Size{640, 480}));
    EXPECT_EQ(TriedSize(options, {1440, 1080}), (Size{1280, 720}));
}

TEST(FormatState, MayChooseASizeByItsWidthOnly) {
    EXPECT_EQ(TriedSize("sizes=640x480:1280x720,adjust=width", {1280, 96}), (Size{1280, 720}));
}

TEST(FormatState, MayAcceptAnySize) {
    FormatState state(Configure("adjust=exact"), kNoFaults);
    v4l2_format format = Format(642, 480, V4L2_PIX_FMT_NV12);
    ASSERT_EQ(state.TryFormat(format), 0);
    EXPECT_EQ(format.fmt.pix.width, 642U);
    EXPECT_EQ(format.fmt.pix.height, 480U);
    EXPECT_EQ(format.fmt.pix.bytesperline, 642U);
    EXPECT_EQ(format.fmt.pix.sizeimage, 642U * 480 * 3 / 2);
    v4l2_frmsizeenum sizes{};
    sizes.pixel_format = V4L2_PIX_FMT_NV12;
    ASSERT_EQ(state.EnumSizes(sizes), 0);
    EXPECT_EQ(sizes.type, uint32_t{V4L2_FRMSIZE_TYPE_STEPWISE});
}

TEST(FormatState, ReplacesAnUnknownFormatByItsFirst) {
    const v4l2_pix_format pix = Tried("formats=YUYV:NV12", Format(640, 480, V4L2_PIX_FMT_H264));
    EXPECT_EQ(pix.pixelformat, V4L2_PIX_FMT_YUYV);
}

TEST(FormatState, TriesAFormatWithoutChangingTheCurrentOne) {
    FormatState state(Configure("sizes=640x480:1280x720"), kNoFaults);
    v4l2_format format = Format(1280, 720, V4L2_PIX_FMT_YUYV);
    ASSERT_EQ(state.TryFormat(format), 0);
    ASSERT_EQ(state.GetFormat(format), 0);
    EXPECT_EQ(format.fmt.pix.width, 640U);
    EXPECT_EQ(format.fmt.pix.pixelformat, V4L2_PIX_FMT_NV12);
    format = Format(1280, 720, V4L2_PIX_FMT_YUYV);
    ASSERT_EQ(state.SetFormat(format, false), 0);
    ASSERT_EQ(state.GetFormat(format), 0);
    EXPECT_EQ(format.fmt.pix.width, 1280U);
    EXPECT_EQ(format.fmt.pix.pixelformat, V4L2_PIX_FMT_YUYV);
    EXPECT_EQ(format.fmt.pix.bytesperline, 2560U);
}

TEST(FormatState, RefusesAnotherBufferType) {
    FormatState state(Configure("sizes=64x64,fps=500"), kNoFaults);
    v4l2_format format = Format(640, 480, V4L2_PIX_FMT_NV12);
    format.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    EXPECT_EQ(state.GetFormat(format), EINVAL);
    EXPECT_EQ(state.TryFormat(format), EINVAL);
    EXPECT_EQ(state.SetFormat(format, false), EINVAL);
}

TEST(FormatState, PadsItsRows) {
    const v4l2_pix_format pix = Tried("padding=22,formats=NV12", Format(640, 480, V4L2_PIX_FMT_NV12));
    EXPECT_EQ(pix.bytesperline, 662U);
    EXPECT_EQ(pix.sizeimage, 662U * 480 * 3 / 2);
}

TEST(FormatState, KeepsALongerRowOnlyIfConfigured) {
    const v4l2_format longer = Format(640, 480, V4L2_PIX_FMT_NV12, 768);
    EXPECT_EQ(Tried("stride=asked", longer).bytesperline, 768U);
    EXPECT_EQ(Tried("sizes=64x64,fps=500", longer).bytesperline, 64U);
}

v4l2_streamparm FrameTime(uint32_t numerator, uint32_t denominator) {
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.timeperframe = {numerator, denominator};
    return parm;
}

TEST(FormatState, SetsTheNearestOfItsRates) {
    FormatState state(Configure("fps=30:15:5"), kNoFaults);
    v4l2_streamparm parm = FrameTime(1, 14);
    ASSERT_EQ(state.SetParm(parm, false), 0);
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 15U);
    EXPECT_EQ(parm.parm.capture.capability, uint32_t{V4L2_CAP_TIMEPERFRAME});
    ASSERT_EQ(state.GetParm(parm), 0);
    EXPECT_EQ(parm.parm.capture.timeperframe.numerator, 1U);
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 15U);
}

TEST(FormatState, ReturnsToItsFirstRateForAnEmptyRequest) {
    FormatState state(Configure("fps=30:15"), kNoFaults);
    v4l2_streamparm parm = FrameTime(1, 15);
    ASSERT_EQ(state.SetParm(parm, false), 0);
    parm = FrameTime(0, 0);
    ASSERT_EQ(state.SetParm(parm, false), 0);
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 30U);
}

TEST(FormatState, MayReportThatItsRateIsFixed) {
    FormatState state(Configure("fps=30:15,parm=fixed"), kNoFaults);
    v4l2_streamparm parm = FrameTime(1, 15);
    ASSERT_EQ(state.GetParm(parm), 0);
    EXPECT_EQ(parm.parm.capture.capability, 0U);
    parm = FrameTime(1, 15);
    ASSERT_EQ(state.SetParm(parm, false), 0);
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 30U);
}

TEST(FormatState, MayHaveNeitherGetNorSetRate) {
    FormatState state(Configure("parm=none"), kNoFaults);
    v4l2_streamparm parm = FrameTime(1, 15);
    EXPECT_EQ(state.GetParm(parm), ENOTTY);
    EXPECT_EQ(state.SetParm(parm, false), ENOTTY);
}

TEST(FormatState, ListsSizesAndRates) {
    FormatState state(Configure("sizes=640x480:320x240,fps=30:15"), kNoFaults);
    v4l2_frmsizeenum sizes{};
    sizes.index = 1;
    sizes.pixel_format = V4L2_PIX_FMT_YUYV;
    ASSERT_EQ(state.EnumSizes(sizes), 0);
    EXPECT_EQ(sizes.discrete.width, 320U);
    sizes.index = 2;
    EXPECT_EQ(state.EnumSizes(sizes), EINVAL);
    v4l2_frmivalenum rates{};
    rates.index = 1;
    rates.pixel_format = V4L2_PIX_FMT_YUYV;
    rates.width = 320;
    rates.height = 240;
    ASSERT_EQ(state.EnumIntervals(rates), 0);
    EXPECT_EQ(rates.discrete.denominator, 15U);
    rates.height = 200;
    EXPECT_EQ(state.EnumIntervals(rates), EINVAL);
}

TEST(FormatState, HasOneInput) {
    FormatState state(Configure("sizes=64x64,fps=500"), kNoFaults);
    v4l2_input input{};
    ASSERT_EQ(state.EnumInput(input), 0);
    EXPECT_EQ(input.type, uint32_t{V4L2_INPUT_TYPE_CAMERA});
    input.index = 1;
    EXPECT_EQ(state.EnumInput(input), EINVAL);
    uint32_t index = 0;
    EXPECT_EQ(state.SetInput(index), 0);
    index = 1;
    EXPECT_EQ(state.SetInput(index), EINVAL);
}

TEST(FormatState, ChangesNeitherFormatNorRateWhileItIsInUse) {
    FormatState state(Configure("sizes=64x64:128x96,fps=30:15"), kNoFaults);
    v4l2_format format = Format(128, 96, V4L2_PIX_FMT_NV12);
    EXPECT_EQ(state.SetFormat(format, true), EBUSY);
    EXPECT_EQ(state.Layout().width, 64U);
    v4l2_streamparm parm = FrameTime(1, 15);
    EXPECT_EQ(state.SetParm(parm, true), EBUSY);
    EXPECT_EQ(state.CurrentRate().numerator, 30U);
}

TEST(FormatState, ReportsAWrongTypeRatherThanThatItIsInUse) {
    FormatState state(Configure(""), kNoFaults);
    v4l2_format format = Format(640, 480, V4L2_PIX_FMT_NV12);
    format.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    EXPECT_EQ(state.SetFormat(format, true), EINVAL);
    v4l2_streamparm parm = FrameTime(1, 30);
    parm.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    EXPECT_EQ(state.SetParm(parm, true), EINVAL);
}

TEST(FormatState, SetsAnotherSizeThanItTriedUnderAFault) {
    FaultSet faults;
    FormatState state(Configure(""), faults);
    faults.Add({.kind = FaultKind::kSizeChange, .value = 321, .value2 = 1000000});
    v4l2_format format = Format(640, 480, V4L2_PIX_FMT_NV12);
    ASSERT_EQ(state.TryFormat(format), 0);
    EXPECT_EQ(format.fmt.pix.width, 640U);
    ASSERT_EQ(state.SetFormat(format, false), 0);
    EXPECT_EQ(format.fmt.pix.width, 320U);
    EXPECT_EQ(format.fmt.pix.height, kGreatestSide);
    EXPECT_EQ(state.Layout().width, 320U);
}

TEST(FormatState, SetsALongerRowThanItTriedUnderAFault) {
    FaultSet faults;
    FormatState state(Configure(""), faults);
    faults.Add({.kind = FaultKind::kStrideChange, .value = 32});
    v4l2_format format = Format(640, 480, V4L2_PIX_FMT_NV12);
    ASSERT_EQ(state.TryFormat(format), 0);
    EXPECT_EQ(format.fmt.pix.bytesperline, 640U);
    ASSERT_EQ(state.SetFormat(format, false), 0);
    EXPECT_EQ(format.fmt.pix.bytesperline, 672U);
}

TEST(FormatState, MakesAnotherSourceOnlyForAnotherFormatOrRate) {
    FormatState state(Configure("sizes=64x64:128x96,fps=30:15"), kNoFaults);
    const auto first = state.Source();
    v4l2_format format = Format(64, 64, V4L2_PIX_FMT_NV12);
    ASSERT_EQ(state.SetFormat(format, false), 0);
    EXPECT_EQ(state.Source(), first);
    v4l2_streamparm parm = FrameTime(1, 15);
    ASSERT_EQ(state.SetParm(parm, false), 0);
    const auto second = state.Source();
    EXPECT_NE(second, first);
    format = Format(128, 96, V4L2_PIX_FMT_NV12);
    ASSERT_EQ(state.SetFormat(format, false), 0);
    EXPECT_NE(state.Source(), second);
}

}  // namespace
}  // namespace zumod::vcam
