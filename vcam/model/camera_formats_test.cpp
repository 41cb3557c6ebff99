// What a camera says it can do, and the formats and rates it agrees to.
#include <gtest/gtest.h>

#include "vcam/model/camera.h"
#include "vcam/testing/test_rig.h"

namespace zumod::vcam {
namespace {

TEST(Camera, SaysWhatItIsAndCanDo) {
    TestRig rig("card=Front Camera,device=3");
    v4l2_capability capability{};
    ASSERT_EQ(rig.Call(VIDIOC_QUERYCAP, capability), 0);
    EXPECT_STREQ(reinterpret_cast<const char*>(capability.driver), "zu-vcam");
    EXPECT_STREQ(reinterpret_cast<const char*>(capability.card), "Front Camera");
    EXPECT_STREQ(reinterpret_cast<const char*>(capability.bus_info), "usb-zu-vcam-3");
    EXPECT_EQ(capability.device_caps, 0x04200001U);
    EXPECT_EQ(capability.capabilities, 0x84200001U);
}

TEST(Camera, ListsItsFormatsInTheGivenOrderAndThenEnds) {
    TestRig rig("formats=MJPG:YUYV");
    v4l2_fmtdesc format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(rig.Call(VIDIOC_ENUM_FMT, format), 0);
    EXPECT_EQ(format.pixelformat, V4L2_PIX_FMT_MJPEG);
    EXPECT_EQ(format.flags, V4L2_FMT_FLAG_COMPRESSED);
    format.index = 1;
    ASSERT_EQ(rig.Call(VIDIOC_ENUM_FMT, format), 0);
    EXPECT_EQ(format.pixelformat, V4L2_PIX_FMT_YUYV);
    EXPECT_EQ(format.flags, 0U);
    format.index = 2;
    EXPECT_EQ(rig.Call(VIDIOC_ENUM_FMT, format), EINVAL);
}

TEST(Camera, GivesTheNearestOfItsSizes) {
    TestRig rig("sizes=640x480:1280x720,adjust=nearest");
    v4l2_format format = Format(800, 600, V4L2_PIX_FMT_NV12);
    ASSERT_EQ(rig.Call(VIDIOC_TRY_FMT, format), 0);
    EXPECT_EQ(format.fmt.pix.width, 640U);
    EXPECT_EQ(format.fmt.pix.height, 480U);
    format = Format(1440, 1080, V4L2_PIX_FMT_NV12);
    ASSERT_EQ(rig.Call(VIDIOC_TRY_FMT, format), 0);
    EXPECT_EQ(format.fmt.pix.width, 1280U);
    EXPECT_EQ(format.fmt.pix.height, 720U);
}

TEST(Camera, MayJudgeASizeByItsWidthAlone) {
    TestRig rig("sizes=640x480:1280x720,adjust=width");
    v4l2_format format = Format(1280, 96, V4L2_PIX_FMT_NV12);
    ASSERT_EQ(rig.Call(VIDIOC_TRY_FMT, format), 0);
    EXPECT_EQ(format.fmt.pix.width, 1280U);
    EXPECT_EQ(format.fmt.pix.height, 720U);
}

TEST(Camera, MayTakeAnySizeExactly) {
    TestRig rig("adjust=exact");
    v4l2_format format = Format(642, 480, V4L2_PIX_FMT_NV12);
    ASSERT_EQ(rig.Call(VIDIOC_TRY_FMT, format), 0);
    EXPECT_EQ(format.fmt.pix.width, 642U);
    EXPECT_EQ(format.fmt.pix.height, 480U);
    EXPECT_EQ(format.fmt.pix.bytesperline, 642U);
    EXPECT_EQ(format.fmt.pix.sizeimage, 642U * 480 * 3 / 2);
    v4l2_frmsizeenum sizes{};
    sizes.pixel_format = V4L2_PIX_FMT_NV12;
    ASSERT_EQ(rig.Call(VIDIOC_ENUM_FRAMESIZES, sizes), 0);
    EXPECT_EQ(sizes.type, uint32_t{V4L2_FRMSIZE_TYPE_STEPWISE});
}

TEST(Camera, PutsItsFirstFormatInPlaceOfAnUnknownOne) {
    TestRig rig("formats=YUYV:NV12");
    v4l2_format format = Format(640, 480, V4L2_PIX_FMT_H264);
    ASSERT_EQ(rig.Call(VIDIOC_TRY_FMT, format), 0);
    EXPECT_EQ(format.fmt.pix.pixelformat, V4L2_PIX_FMT_YUYV);
}

TEST(Camera, TriesAFormatWithoutChangingTheCurrentOne) {
    TestRig rig("sizes=640x480:1280x720");
    v4l2_format format = Format(1280, 720, V4L2_PIX_FMT_YUYV);
    ASSERT_EQ(rig.Call(VIDIOC_TRY_FMT, format), 0);
    ASSERT_EQ(rig.Call(VIDIOC_G_FMT, format), 0);
    EXPECT_EQ(format.fmt.pix.width, 640U);
    EXPECT_EQ(format.fmt.pix.pixelformat, V4L2_PIX_FMT_NV12);
    format = Format(1280, 720, V4L2_PIX_FMT_YUYV);
    ASSERT_EQ(rig.Call(VIDIOC_S_FMT, format), 0);
    ASSERT_EQ(rig.Call(VIDIOC_G_FMT, format), 0);
    EXPECT_EQ(format.fmt.pix.width, 1280U);
    EXPECT_EQ(format.fmt.pix.pixelformat, V4L2_PIX_FMT_YUYV);
    EXPECT_EQ(format.fmt.pix.bytesperline, 2560U);
}

TEST(Camera, RefusesAnotherBufferType) {
    TestRig rig;
    v4l2_format format = Format(640, 480, V4L2_PIX_FMT_NV12);
    format.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    EXPECT_EQ(rig.Call(VIDIOC_G_FMT, format), EINVAL);
    EXPECT_EQ(rig.Call(VIDIOC_TRY_FMT, format), EINVAL);
    EXPECT_EQ(rig.Call(VIDIOC_S_FMT, format), EINVAL);
}

TEST(Camera, PadsItsRows) {
    TestRig rig("padding=22,formats=NV12");
    v4l2_format format = Format(640, 480, V4L2_PIX_FMT_NV12);
    ASSERT_EQ(rig.Call(VIDIOC_TRY_FMT, format), 0);
    EXPECT_EQ(format.fmt.pix.bytesperline, 662U);
    EXPECT_EQ(format.fmt.pix.sizeimage, 662U * 480 * 3 / 2);
}

TEST(Camera, KeepsALongerRowThatIsAskedForOnlyIfThatIsItsHabit) {
    TestRig keeps("stride=asked");
    v4l2_format format = Format(640, 480, V4L2_PIX_FMT_NV12, 768);
    ASSERT_EQ(keeps.Call(VIDIOC_TRY_FMT, format), 0);
    EXPECT_EQ(format.fmt.pix.bytesperline, 768U);
    TestRig ignores;
    format = Format(640, 480, V4L2_PIX_FMT_NV12, 768);
    ASSERT_EQ(ignores.Call(VIDIOC_TRY_FMT, format), 0);
    EXPECT_EQ(format.fmt.pix.bytesperline, 64U);
}

v4l2_streamparm Parm(uint32_t numerator, uint32_t denominator) {
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.timeperframe = {numerator, denominator};
    return parm;
}

TEST(Camera, SetsTheNearestOfItsRates) {
    TestRig rig("fps=30:15:5");
    v4l2_streamparm parm = Parm(1, 14);
    ASSERT_EQ(rig.Call(VIDIOC_S_PARM, parm), 0);
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 15U);
    EXPECT_EQ(parm.parm.capture.capability, uint32_t{V4L2_CAP_TIMEPERFRAME});
    ASSERT_EQ(rig.Call(VIDIOC_G_PARM, parm), 0);
    EXPECT_EQ(parm.parm.capture.timeperframe.numerator, 1U);
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 15U);
}

TEST(Camera, GoesBackToItsFirstRateForNone) {
    TestRig rig("fps=30:15");
    v4l2_streamparm parm = Parm(1, 15);
    ASSERT_EQ(rig.Call(VIDIOC_S_PARM, parm), 0);
    parm = Parm(0, 0);
    ASSERT_EQ(rig.Call(VIDIOC_S_PARM, parm), 0);
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 30U);
}

TEST(Camera, MaySayThatItsRateIsFixed) {
    TestRig rig("fps=30:15,parm=fixed");
    v4l2_streamparm parm = Parm(1, 15);
    ASSERT_EQ(rig.Call(VIDIOC_G_PARM, parm), 0);
    EXPECT_EQ(parm.parm.capture.capability, 0U);
    parm = Parm(1, 15);
    ASSERT_EQ(rig.Call(VIDIOC_S_PARM, parm), 0);
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 30U);
}

TEST(Camera, MayHaveNeitherGetNorSetRate) {
    TestRig rig("parm=none");
    v4l2_streamparm parm = Parm(1, 15);
    EXPECT_EQ(rig.Call(VIDIOC_G_PARM, parm), ENOTTY);
    EXPECT_EQ(rig.Call(VIDIOC_S_PARM, parm), ENOTTY);
}

TEST(Camera, ListsSizesAndRates) {
    TestRig rig("sizes=640x480:320x240,fps=30:15");
    v4l2_frmsizeenum sizes{};
    sizes.index = 1;
    sizes.pixel_format = V4L2_PIX_FMT_YUYV;
    ASSERT_EQ(rig.Call(VIDIOC_ENUM_FRAMESIZES, sizes), 0);
    EXPECT_EQ(sizes.discrete.width, 320U);
    sizes.index = 2;
    EXPECT_EQ(rig.Call(VIDIOC_ENUM_FRAMESIZES, sizes), EINVAL);
    v4l2_frmivalenum rates{};
    rates.index = 1;
    rates.pixel_format = V4L2_PIX_FMT_YUYV;
    rates.width = 320;
    rates.height = 240;
    ASSERT_EQ(rig.Call(VIDIOC_ENUM_FRAMEINTERVALS, rates), 0);
    EXPECT_EQ(rates.discrete.denominator, 15U);
    rates.height = 200;
    EXPECT_EQ(rig.Call(VIDIOC_ENUM_FRAMEINTERVALS, rates), EINVAL);
}

TEST(Camera, HasOneInput) {
    TestRig rig;
    v4l2_input input{};
    ASSERT_EQ(rig.Call(VIDIOC_ENUMINPUT, input), 0);
    EXPECT_EQ(input.type, uint32_t{V4L2_INPUT_TYPE_CAMERA});
    input.index = 1;
    EXPECT_EQ(rig.Call(VIDIOC_ENUMINPUT, input), EINVAL);
    uint32_t index = 0;
    EXPECT_EQ(rig.Call(VIDIOC_S_INPUT, index), 0);
    index = 1;
    EXPECT_EQ(rig.Call(VIDIOC_S_INPUT, index), EINVAL);
}

TEST(Camera, DoesNotKnowOtherRequests) {
    TestRig rig;
    v4l2_exportbuffer unknown{};
    EXPECT_EQ(rig.Call(VIDIOC_EXPBUF, unknown), ENOTTY);
    EXPECT_EQ(rig.File().Ioctl(VIDIOC_LOG_STATUS, nullptr), ENOTTY);
}

TEST(Camera, FailsForAMissingArgument) {
    TestRig rig;
    EXPECT_EQ(rig.File().Ioctl(VIDIOC_QUERYCAP, nullptr), EFAULT);
    EXPECT_EQ(rig.File().Ioctl(VIDIOC_DQBUF, nullptr), EFAULT);
    EXPECT_EQ(rig.File().Ioctl(VIDIOC_QBUF, nullptr), EFAULT);
}

}  // namespace
}  // namespace zumod::vcam
