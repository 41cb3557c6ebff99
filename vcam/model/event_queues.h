// What each open file has besides the camera's own state: its priority, its subscriptions to control events,
// and the events that are pending for it.
//
// Thread rule: the camera's lock guards it.
#pragma once

#include <linux/videodev2.h>

#include <cstdint>
#include <deque>
#include <map>
#include <vector>

#include "vcam/model/camera_board.h"
#include "vcam/model/controls.h"
#include "vcam/model/open_file.h"

namespace zumod::vcam {

class EventQueues {
public:
    EventQueues(CameraBoard& board, const Controls& controls) : m_board(board), m_controls(controls) {}

    // A file must not move between Add and Remove.
    void Add(const OpenFile& file) { m_queues[file.Id()].file = &file; }
    void Remove(const OpenFile& file) { m_queues.erase(file.Id()); }
    void Clear() { m_queues.clear(); }

    // Each returns 0 or errno.
    int GetPriority(uint32_t& priority) const;
    int SetPriority(const OpenFile& file, uint32_t& priority);
    int Subscribe(const OpenFile& file, v4l2_event_subscription& subscription);
    int Unsubscribe(const OpenFile& file, v4l2_event_subscription& subscription);
    int Dequeue(const OpenFile& file, v4l2_event& event);

    // Whether no other file's priority is above this file's.
    bool HasPriority(const OpenFile& file) const;
    // Queues an event for every subscriber of these controls. The file that changed them gets one only if it
    // subscribed with V4L2_EVENT_SUB_FL_ALLOW_FEEDBACK.
    void Notify(const OpenFile& origin, const std::vector<uint32_t>& changed);
    // The program consumed the urgent byte of this file: sends another if events are pending.
    void Rearm(const OpenFile& file);
    // The same, for a caller that dequeues next.
    void MarkTaken(const OpenFile& file) { m_queues.at(file.Id()).marked = false; }

private:
    struct Subscription {
        uint32_t type;
        uint32_t id;
        uint32_t flags;
    };
    struct Queue {
        const OpenFile* file = nullptr;
        uint32_t priority = V4L2_PRIORITY_DEFAULT;
        std::vector<Subscription> subscriptions;
        std::deque<v4l2_event> events;
        uint32_t next_sequence = 0;
        bool marked = false;  // an urgent byte is on its way or in the descriptor
    };

    void Push(Queue& queue, v4l2_event event);
    void Mark(Queue& queue);

    CameraBoard& m_board;
    const Controls& m_controls;
    std::map<uint32_t, Queue> m_queues;
};

}  // namespace zumod::vcam
