#include "vcam/model/ioctl_table.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "vcam/testing/file_pair.h"
#include "vcam/testing/requests.h"
#include "vcam/testing/test_rig.h"

namespace zumod::vcam {
namespace {

using Payload = std::vector<uint8_t>;

template <class... T>
Payload Bytes(const T&... values) {
    Payload bytes;
    for (const auto& [data, size] : {std::pair<const void*, size_t>(&values, sizeof values)...}) {
        const auto* first = static_cast<const uint8_t*>(data);
        bytes.insert(bytes.end(), first, first + size);
    }
    return bytes;
}

class IoctlTable : public ::testing::Test {
protected:
    IoctlTable() {
        m_parts.events.Add(m_file.File());
        m_parts.events.Add(m_other.File());
    }

    int Ask(unsigned long command, Payload& payload, uint32_t flags = 0) {
        Request request{};
        request.command = command;
        request.flags = flags;
        return ServeIoctl(m_parts, m_file.File(), request, payload);
    }

    CameraBoard m_board{};
    CameraParts m_parts{Configure("sizes=64x64"), m_board};
    FilePair m_file{1};
    FilePair m_other{2};
};

TEST_F(IoctlTable, KnowsEveryRequestThatACaptureMakesButQueueingAndDequeueing) {
    for (const unsigned long command : {VIDIOC_QUERYCAP,
                                        VIDIOC_ENUM_FMT,
                                        VIDIOC_G_FMT,
                                        VIDIOC_TRY_FMT,
                                        VIDIOC_S_FMT,
                                        VIDIOC_ENUM_FRAMESIZES,
                                        VIDIOC_ENUM_FRAMEINTERVALS,
                                        VIDIOC_G_PARM,
                                        VIDIOC_S_PARM,
                                        VIDIOC_ENUMINPUT,
                                        VIDIOC_G_INPUT,
                                        VIDIOC_S_INPUT,
                                        VIDIOC_REQBUFS,
                                        VIDIOC_QUERYBUF,
                                        VIDIOC_STREAMON,
                                        VIDIOC_STREAMOFF,
                                        VIDIOC_QUERYCTRL,
                                        VIDIOC_QUERY_EXT_CTRL,
                                        VIDIOC_QUERYMENU,
                                        VIDIOC_G_CTRL,
                                        VIDIOC_S_CTRL,
                                        VIDIOC_G_EXT_CTRLS,
                                        VIDIOC_S_EXT_CTRLS,
                                        VIDIOC_TRY_EXT_CTRLS,
                                        VIDIOC_G_PRIORITY,
                                        VIDIOC_S_PRIORITY,
                                        VIDIOC_SUBSCRIBE_EVENT,
                                        VIDIOC_UNSUBSCRIBE_EVENT,
                                        VIDIOC_DQEVENT}) {
        Payload payload(_IOC_SIZE(command));
        EXPECT_NE(Ask(command, payload), ENOTTY) << command;
    }
    for (const unsigned long command : {VIDIOC_QBUF, VIDIOC_DQBUF, VIDIOC_EXPBUF}) {
        Payload payload(_IOC_SIZE(command));
        EXPECT_EQ(Ask(command, payload), ENOTTY) << command;
    }
}

TEST_F(IoctlTable, RefusesAPayloadThatIsTooShort) {
    Payload payload(sizeof(v4l2_capability) - 1);
    EXPECT_EQ(Ask(VIDIOC_QUERYCAP, payload), EFAULT);
}

TEST_F(IoctlTable, ReturnsNoPayloadForACallThatFailed) {
    Payload payload = Bytes(Format(64, 64, V4L2_PIX_FMT_NV12));
    ASSERT_EQ(Ask(VIDIOC_TRY_FMT, payload), 0);
    EXPECT_EQ(payload.size(), sizeof(v4l2_format));
    payload = Bytes(v4l2_control{V4L2_CID_IRIS_ABSOLUTE, 0});
    EXPECT_EQ(Ask(VIDIOC_G_CTRL, payload), EINVAL);
    EXPECT_TRUE(payload.empty());
}

TEST_F(IoctlTable, FindsTheControlsBehindAnExtendedRequestAndKeepsThePointerOfTheProgram) {
    v4l2_ext_controls request{};
    request.which = V4L2_CTRL_WHICH_CUR_VAL;
    request.count = 2;
    request.controls = reinterpret_cast<v4l2_ext_control*>(0x1234);
    v4l2_ext_control controls[2]{};
    controls[0].id = V4L2_CID_CONTRAST;
    controls[0].value = 300;
    controls[1].id = V4L2_CID_BRIGHTNESS;
    controls[1].value = 9;
    Payload payload = Bytes(request, controls);
    ASSERT_EQ(Ask(VIDIOC_S_EXT_CTRLS, payload), 0);
    std::memcpy(&request, payload.data(), sizeof request);
    EXPECT_EQ(request.controls, reinterpret_cast<v4l2_ext_control*>(0x1234));
    std::memcpy(&controls, payload.data() + sizeof request, sizeof controls);
    EXPECT_EQ(controls[0].value, 255);
    payload = Bytes(v4l2_control{V4L2_CID_BRIGHTNESS, 0});
    ASSERT_EQ(Ask(VIDIOC_G_CTRL, payload), 0);
    EXPECT_EQ(reinterpret_cast<v4l2_control*>(payload.data())->value, 9);
    payload = Bytes(request, controls[0]);
    EXPECT_EQ(Ask(VIDIOC_S_EXT_CTRLS, payload), EFAULT);
}

TEST_F(IoctlTable, SaysWhichExtendedControlIsWrongOnlyWhenTrying) {
    v4l2_ext_controls request{};
    request.which = V4L2_CTRL_WHICH_CUR_VAL;
    request.count = 2;
    v4l2_ext_control controls[2]{};
    controls[0].id = V4L2_CID_CONTRAST;
    controls[1].id = V4L2_CID_POWER_LINE_FREQUENCY;
    controls[1].value = 3;
    Payload payload = Bytes(request, controls);
    EXPECT_EQ(Ask(VIDIOC_TRY_EXT_CTRLS, payload), ERANGE);
    EXPECT_EQ(reinterpret_cast<v4l2_ext_controls*>(payload.data())->error_idx, 1U);
    payload = Bytes(request, controls);
    EXPECT_EQ(Ask(VIDIOC_S_EXT_CTRLS, payload), ERANGE);
    EXPECT_EQ(reinterpret_cast<v4l2_ext_controls*>(payload.data())->error_idx, 2U);
}

TEST_F(IoctlTable, KeepsSettingFromAFileOfLowerPriority) {
    uint32_t priority = V4L2_PRIORITY_RECORD;
    ASSERT_EQ(m_parts.events.SetPriority(m_other.File(), priority), 0);
    Payload payload = Bytes(Format(64, 64, V4L2_PIX_FMT_NV12));
    EXPECT_EQ(Ask(VIDIOC_S_FMT, payload), EBUSY);
    EXPECT_EQ(Ask(VIDIOC_TRY_FMT, payload), 0);
}

TEST_F(IoctlTable, LetsAFaultFailARequest) {
    m_parts.faults.Add(ParseFault("errno/QUERYCAP/EIO").value());
    Payload payload(sizeof(v4l2_capability));
    EXPECT_EQ(Ask(VIDIOC_QUERYCAP, payload), EIO);
    EXPECT_EQ(Ask(VIDIOC_QUERYCAP, payload), 0);
}

TEST_F(IoctlTable, NotifiesTheFilesThatSubscribedToAControl) {
    v4l2_event_subscription subscription{};
    subscription.type = V4L2_EVENT_CTRL;
    subscription.id = V4L2_CID_CONTRAST;
    ASSERT_EQ(m_parts.events.Subscribe(m_other.File(), subscription), 0);
    Payload payload = Bytes(v4l2_control{V4L2_CID_CONTRAST, 1});
    ASSERT_EQ(Ask(VIDIOC_S_CTRL, payload), 0);
    EXPECT_TRUE(m_other.HasUrgentByte());
    EXPECT_FALSE(m_file.HasUrgentByte());
}

TEST_F(IoctlTable, KeepsTheFormatWhileThereAreBuffers) {
    Payload payload = Bytes(BufferRequest(2));
    ASSERT_EQ(Ask(VIDIOC_REQBUFS, payload), 0);
    payload = Bytes(Format(64, 64, V4L2_PIX_FMT_NV12));
    EXPECT_EQ(Ask(VIDIOC_S_FMT, payload), EBUSY);
}

}  // namespace
}  // namespace zumod::vcam
