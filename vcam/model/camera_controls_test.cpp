// Priorities, controls and the events they raise.
#include <gtest/gtest.h>

#include "vcam/model/camera.h"
#include "vcam/testing/test_rig.h"

namespace zumod::vcam {
namespace {

TEST(Camera, ObeysPriorities) {
    TestRig rig;
    ModelFile second(rig.Device());
    uint32_t priority = V4L2_PRIORITY_RECORD;
    ASSERT_EQ(second.Ioctl(VIDIOC_S_PRIORITY, &priority), 0);
    v4l2_format format = Format(64, 64, V4L2_PIX_FMT_NV12);
    EXPECT_EQ(rig.Call(VIDIOC_S_FMT, format), EBUSY);
    EXPECT_EQ(rig.Call(VIDIOC_TRY_FMT, format), 0);
    ASSERT_EQ(rig.Call(VIDIOC_G_PRIORITY, priority), 0);
    EXPECT_EQ(priority, uint32_t{V4L2_PRIORITY_RECORD});
    second.Close();
    EXPECT_EQ(rig.Call(VIDIOC_S_FMT, format), 0);
    priority = 17;
    EXPECT_EQ(rig.Call(VIDIOC_S_PRIORITY, priority), EINVAL);
}

TEST(Camera, KeepsItsControls) {
    TestRig rig;
    v4l2_control control{V4L2_CID_BRIGHTNESS, 300};
    ASSERT_EQ(rig.Call(VIDIOC_S_CTRL, control), 0);
    control.value = 0;
    ASSERT_EQ(rig.Call(VIDIOC_G_CTRL, control), 0);
    EXPECT_EQ(control.value, 255);
    control = {V4L2_CID_POWER_LINE_FREQUENCY, 3};
    EXPECT_EQ(rig.Call(VIDIOC_S_CTRL, control), ERANGE);
    control = {V4L2_CID_IRIS_ABSOLUTE, 0};
    EXPECT_EQ(rig.Call(VIDIOC_G_CTRL, control), EINVAL);
}

TEST(Camera, TakesOnlyTheItemsThatAMenuHas) {
    TestRig rig;
    v4l2_querymenu item{};
    item.id = V4L2_CID_EXPOSURE_AUTO;
    for (const uint32_t index : {0U, 1U, 2U, 3U, 4U}) {
        item.index = index;
        const bool is_there = index == 1 || index == 3;
        EXPECT_EQ(rig.Call(VIDIOC_QUERYMENU, item), is_there ? 0 : EINVAL) << index;
        v4l2_control control{V4L2_CID_EXPOSURE_AUTO, static_cast<int32_t>(index)};
        EXPECT_EQ(rig.Call(VIDIOC_S_CTRL, control), is_there ? 0 : index > 3 ? ERANGE : EINVAL) << index;
    }
}

TEST(Camera, RaisesAnEventWhenAnotherFileChangesAControl) {
    TestRig rig;
    ModelFile second(rig.Device());
    ASSERT_EQ(rig.Start(2), 0);
    v4l2_event_subscription subscription{};
    subscription.type = V4L2_EVENT_CTRL;
    for (const uint32_t id : {uint32_t{V4L2_CID_CONTRAST}, uint32_t{V4L2_CID_BRIGHTNESS}}) {
        subscription.id = id;
        ASSERT_EQ(rig.Call(VIDIOC_SUBSCRIBE_EVENT, subscription), 0);
    }
    EXPECT_EQ(rig.Poll(0, POLLPRI), 0);
    v4l2_event event{};
    EXPECT_EQ(rig.Call(VIDIOC_DQEVENT, event), ENOENT);
    for (v4l2_control control :
         {v4l2_control{V4L2_CID_CONTRAST, 1}, {V4L2_CID_CONTRAST, 2}, {V4L2_CID_BRIGHTNESS, 3}}) {
        ASSERT_EQ(second.Ioctl(VIDIOC_S_CTRL, &control), 0);
    }
    EXPECT_EQ(rig.Poll(20000, POLLPRI), POLLPRI);
    // Dequeuing a frame does not remove the event.
    TestRig::Frame frame = rig.NextAndQueue();
    while (frame.error == EAGAIN) {
        frame = rig.NextAndQueue();
    }
    ASSERT_EQ(frame.error, 0);
    EXPECT_EQ(rig.Poll(20000, POLLPRI), POLLPRI);
    ASSERT_EQ(rig.Call(VIDIOC_DQEVENT, event), 0);
    EXPECT_EQ(event.u.ctrl.value, 2);
    EXPECT_EQ(event.pending, 1U);
    EXPECT_EQ(rig.Poll(20000, POLLPRI), POLLPRI);
    ASSERT_EQ(rig.Call(VIDIOC_DQEVENT, event), 0);
    EXPECT_EQ(event.u.ctrl.value, 3);
    EXPECT_EQ(event.pending, 0U);
    EXPECT_EQ(rig.Poll(0, POLLPRI), 0);
    ASSERT_EQ(rig.NextAndQueue().error, 0);
}

}  // namespace
}  // namespace zumod::vcam
