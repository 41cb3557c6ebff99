#include "vcam/model/event_queues.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace zumod::vcam {

int EventQueues::GetPriority(uint32_t& priority) const {
    priority = V4L2_PRIORITY_UNSET;
    for (const auto& [id, queue] : m_queues) {
        priority = std::max(priority, queue.priority);
    }
    return 0;
}

int EventQueues::SetPriority(const OpenFile& file, uint32_t& priority) {
    if (priority < V4L2_PRIORITY_BACKGROUND || priority > V4L2_PRIORITY_RECORD) {
        return EINVAL;
    }
    m_queues.at(file.Id()).priority = priority;
    return 0;
}

bool EventQueues::HasPriority(const OpenFile& file) const {
    uint32_t greatest = 0;
    GetPriority(greatest);
    return m_queues.at(file.Id()).priority >= greatest;
}

int EventQueues::Subscribe(const OpenFile& file, v4l2_event_subscription& subscription) {
    Queue& queue = m_queues.at(file.Id());
    v4l2_event event{};
    if (subscription.type != V4L2_EVENT_CTRL || !m_controls.Describe(subscription.id, event)) {
        return EINVAL;
    }
    const auto is_same = [&](const Subscription& other) {
        return other.type == subscription.type && other.id == subscription.id;
    };
    if (std::ranges::any_of(queue.subscriptions, is_same)) {
        return 0;
    }
    queue.subscriptions.push_back({subscription.type, subscription.id, subscription.flags});
    if ((subscription.flags & V4L2_EVENT_SUB_FL_SEND_INITIAL) != 0 &&
        event.u.ctrl.type != V4L2_CTRL_TYPE_CTRL_CLASS) {
        event.u.ctrl.changes = V4L2_EVENT_CTRL_CH_VALUE | V4L2_EVENT_CTRL_CH_FLAGS;
        Push(queue, event);
    }
    return 0;
}

int EventQueues::Unsubscribe(const OpenFile& file, v4l2_event_subscription& subscription) {
    Queue& queue = m_queues.at(file.Id());
    const auto matches = [&](const auto& entry) {
        return subscription.type == V4L2_EVENT_ALL ||
               (entry.type == subscription.type && entry.id == subscription.id);
    };
    std::erase_if(queue.subscriptions, matches);
    std::erase_if(queue.events, matches);
    Mark(queue);
    return 0;
}

int EventQueues::Dequeue(const OpenFile& file, v4l2_event& event) {
    Queue& queue = m_queues.at(file.Id());
    if (queue.events.empty()) {
        return ENOENT;
    }
    event = queue.events.front();
    queue.events.pop_front();
    event.pending = static_cast<uint32_t>(queue.events.size());
    Mark(queue);
    return 0;
}

void EventQueues::Notify(const OpenFile& origin, const std::vector<uint32_t>& changed) {
    for (const uint32_t control : changed) {
        v4l2_event event{};
        m_controls.Describe(control, event);
        for (auto& [id, queue] : m_queues) {
            for (const Subscription& subscription : queue.subscriptions) {
                const bool feedback = (subscription.flags & V4L2_EVENT_SUB_FL_ALLOW_FEEDBACK) != 0;
                if (subscription.id == control && (id != origin.Id() || feedback)) {
                    Push(queue, event);
                }
            }
        }
    }
}

void EventQueues::Push(Queue& queue, v4l2_event event) {
    event.sequence = queue.next_sequence++;
    clock_gettime(CLOCK_MONOTONIC, &event.timestamp);
    // Only the latest event of a control is kept. It reports all changes since the program last dequeued one.
    const auto older = std::ranges::find_if(queue.events, [&](const v4l2_event& other) {
        return other.type == event.type && other.id == event.id;
    });
    if (older != queue.events.end()) {
        event.u.ctrl.changes |= older->u.ctrl.changes;
        queue.events.erase(older);
    }
    queue.events.push_back(event);
    Mark(queue);
}

void EventQueues::Mark(Queue& queue) {
    if (m_board.owner.load(std::memory_order_relaxed) == queue.file->Id()) {
        m_board.pending_events.store(static_cast<uint32_t>(queue.events.size()), std::memory_order_relaxed);
    }
    // A second urgent byte would turn the first into ordinary data.
    if (!queue.events.empty() && !queue.marked) {
        queue.marked = true;
        queue.file->SendEventMark();
    }
}

void EventQueues::Rearm(const OpenFile& file) {
    MarkTaken(file);
    Mark(m_queues.at(file.Id()));
}

}  // namespace zumod::vcam
