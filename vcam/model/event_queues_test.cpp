#include "vcam/model/event_queues.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "vcam/testing/file_pair.h"

namespace zumod::vcam {
namespace {

v4l2_event_subscription To(uint32_t control, uint32_t flags = 0) {
    v4l2_event_subscription subscription{};
    subscription.type = V4L2_EVENT_CTRL;
    subscription.id = control;
    subscription.flags = flags;
    return subscription;
}

class EventQueuesTest : public ::testing::Test {
protected:
    EventQueuesTest() {
        m_queues.Add(m_first.File());
        m_queues.Add(m_second.File());
    }

    int Subscribe(const FilePair& file, uint32_t control, uint32_t flags = 0) {
        v4l2_event_subscription subscription = To(control, flags);
        return m_queues.Subscribe(file.File(), subscription);
    }
    // The second file sets a control.
    void Set(uint32_t id, int32_t value) {
        v4l2_control control{id, value};
        ASSERT_EQ(m_controls.Set(control), 0);
        m_queues.Notify(m_second.File(), m_controls.TakeChanged());
    }

    CameraBoard m_board{};
    Controls m_controls;
    EventQueues m_queues{m_board, m_controls};
    FilePair m_first{1};
    FilePair m_second{2};
};

TEST_F(EventQueuesTest, TheGreatestPriorityIsTheCamerasAndEndsWithItsFile) {
    uint32_t priority = V4L2_PRIORITY_RECORD;
    ASSERT_EQ(m_queues.SetPriority(m_second.File(), priority), 0);
    EXPECT_FALSE(m_queues.HasPriority(m_first.File()));
    EXPECT_TRUE(m_queues.HasPriority(m_second.File()));
    priority = 0;
    m_queues.GetPriority(priority);
    EXPECT_EQ(priority, uint32_t{V4L2_PRIORITY_RECORD});
    m_queues.Remove(m_second.File());
    EXPECT_TRUE(m_queues.HasPriority(m_first.File()));
    m_queues.GetPriority(priority);
    EXPECT_EQ(priority, uint32_t{V4L2_PRIORITY_DEFAULT});
}

TEST_F(EventQueuesTest, RefusesAPriorityThatDoesNotExist) {
    for (uint32_t priority : {uint32_t{V4L2_PRIORITY_UNSET}, uint32_t{V4L2_PRIORITY_RECORD} + 1}) {
        EXPECT_EQ(m_queues.SetPriority(m_first.File(), priority), EINVAL);
    }
}

TEST_F(EventQueuesTest, KnowsOnlyEventsOfItsControls) {
    EXPECT_EQ(Subscribe(m_first, V4L2_CID_IRIS_ABSOLUTE), EINVAL);
    v4l2_event_subscription other = To(V4L2_CID_CONTRAST);
    other.type = V4L2_EVENT_EOS;
    EXPECT_EQ(m_queues.Subscribe(m_first.File(), other), EINVAL);
}

TEST_F(EventQueuesTest, ReportsAChangeToSubscribersOnly) {
    ASSERT_EQ(Subscribe(m_first, V4L2_CID_CONTRAST), 0);
    Set(V4L2_CID_BRIGHTNESS, 7);
    EXPECT_FALSE(m_first.HasUrgentByte());
    Set(V4L2_CID_CONTRAST, 5);
    EXPECT_TRUE(m_first.HasUrgentByte());
    EXPECT_FALSE(m_second.HasUrgentByte());
    v4l2_event event{};
    ASSERT_EQ(m_queues.Dequeue(m_first.File(), event), 0);
    EXPECT_EQ(event.u.ctrl.value, 5);
    EXPECT_EQ(event.pending, 0U);
    EXPECT_EQ(m_queues.Dequeue(m_first.File(), event), ENOENT);
}

TEST_F(EventQueuesTest, ReportsAFilesOwnChangeOnlyAsFeedback) {
    ASSERT_EQ(Subscribe(m_second, V4L2_CID_CONTRAST), 0);
    Set(V4L2_CID_CONTRAST, 5);
    EXPECT_FALSE(m_second.HasUrgentByte());
    ASSERT_EQ(Subscribe(m_second, V4L2_CID_BRIGHTNESS, V4L2_EVENT_SUB_FL_ALLOW_FEEDBACK), 0);
    Set(V4L2_CID_BRIGHTNESS, 5);
    EXPECT_TRUE(m_second.HasUrgentByte());
}

TEST_F(EventQueuesTest, SendsTheCurrentValueAtOnceIfAsked) {
    ASSERT_EQ(Subscribe(m_first, V4L2_CID_CONTRAST, V4L2_EVENT_SUB_FL_SEND_INITIAL), 0);
    v4l2_event event{};
    ASSERT_EQ(m_queues.Dequeue(m_first.File(), event), 0);
    EXPECT_EQ(event.u.ctrl.value, 128);
    EXPECT_EQ(event.u.ctrl.changes, uint32_t{V4L2_EVENT_CTRL_CH_VALUE | V4L2_EVENT_CTRL_CH_FLAGS});
}

TEST_F(EventQueuesTest, KeepsOnlyTheLatestEventOfAControlAndCountsThemAll) {
    ASSERT_EQ(Subscribe(m_first, V4L2_CID_CONTRAST), 0);
    ASSERT_EQ(Subscribe(m_first, V4L2_CID_BRIGHTNESS), 0);
    Set(V4L2_CID_CONTRAST, 1);
    Set(V4L2_CID_CONTRAST, 2);
    Set(V4L2_CID_BRIGHTNESS, 3);
    v4l2_event event{};
    ASSERT_EQ(m_queues.Dequeue(m_first.File(), event), 0);
    EXPECT_EQ(event.u.ctrl.value, 2);
    EXPECT_EQ(event.sequence, 1U);
    EXPECT_EQ(event.pending, 1U);
    ASSERT_EQ(m_queues.Dequeue(m_first.File(), event), 0);
    EXPECT_EQ(event.u.ctrl.value, 3);
    EXPECT_EQ(event.sequence, 2U);
}

TEST_F(EventQueuesTest, UnsubscribingTakesPendingEventsAway) {
    ASSERT_EQ(Subscribe(m_first, V4L2_CID_CONTRAST), 0);
    ASSERT_EQ(Subscribe(m_first, V4L2_CID_BRIGHTNESS), 0);
    Set(V4L2_CID_CONTRAST, 1);
    Set(V4L2_CID_BRIGHTNESS, 1);
    v4l2_event_subscription subscription = To(V4L2_CID_CONTRAST);
    ASSERT_EQ(m_queues.Unsubscribe(m_first.File(), subscription), 0);
    v4l2_event event{};
    ASSERT_EQ(m_queues.Dequeue(m_first.File(), event), 0);
    EXPECT_EQ(event.id, uint32_t{V4L2_CID_BRIGHTNESS});
    Set(V4L2_CID_BRIGHTNESS, 2);
    subscription = {};
    subscription.type = V4L2_EVENT_ALL;
    ASSERT_EQ(m_queues.Unsubscribe(m_first.File(), subscription), 0);
    EXPECT_EQ(m_queues.Dequeue(m_first.File(), event), ENOENT);
}

// A second urgent byte would turn the first into ordinary data, which a reader would take for part of a
// record.
TEST_F(EventQueuesTest, HasAtMostOneUrgentByteOnItsWay) {
    ASSERT_EQ(Subscribe(m_first, V4L2_CID_CONTRAST), 0);
    ASSERT_EQ(Subscribe(m_first, V4L2_CID_BRIGHTNESS), 0);
    Set(V4L2_CID_CONTRAST, 1);
    Set(V4L2_CID_BRIGHTNESS, 1);
    EXPECT_TRUE(m_first.TakeUrgentByte());
    EXPECT_EQ(m_first.Receive(), std::nullopt);
}

TEST_F(EventQueuesTest, RearmsAConsumedByteOnlyWhileEventsArePending) {
    ASSERT_EQ(Subscribe(m_first, V4L2_CID_CONTRAST), 0);
    Set(V4L2_CID_CONTRAST, 1);
    ASSERT_TRUE(m_first.TakeUrgentByte());
    m_queues.Rearm(m_first.File());
    EXPECT_TRUE(m_first.TakeUrgentByte());
    m_queues.MarkTaken(m_first.File());
    v4l2_event event{};
    ASSERT_EQ(m_queues.Dequeue(m_first.File(), event), 0);
    m_queues.Rearm(m_first.File());
    EXPECT_FALSE(m_first.TakeUrgentByte());
}

TEST_F(EventQueuesTest, ShowsTheOwnersPendingEventsOnTheBoard) {
    m_board.owner.store(1);
    ASSERT_EQ(Subscribe(m_first, V4L2_CID_CONTRAST), 0);
    ASSERT_EQ(Subscribe(m_second, V4L2_CID_CONTRAST, V4L2_EVENT_SUB_FL_ALLOW_FEEDBACK), 0);
    Set(V4L2_CID_CONTRAST, 1);
    EXPECT_EQ(m_board.pending_events.load(), 1U);
    v4l2_event event{};
    ASSERT_EQ(m_queues.Dequeue(m_first.File(), event), 0);
    EXPECT_EQ(m_board.pending_events.load(), 0U);
}

}  // namespace
}  // namespace zumod::vcam
