// A whole camera: what concerns no part by itself.
#include "vcam/model/camera.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "vcam/testing/test_rig.h"

namespace zumod::vcam {
namespace {

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
