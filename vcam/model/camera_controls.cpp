// Controls, priorities and events of a camera.
#include <algorithm>
#include <ctime>

#include "vcam/model/camera.h"

namespace zumod::vcam {
namespace {

template <class T>
T& As(void* argument) {
    return *static_cast<T*>(argument);
}

}  // namespace

int Camera::QueryControl(OpenFile& /*file*/, void* argument) {
    return controls_.Query(As<v4l2_queryctrl>(argument));
}

int Camera::QueryControlExtended(OpenFile& /*file*/, void* argument) {
    return controls_.QueryExtended(As<v4l2_query_ext_ctrl>(argument));
}

int Camera::QueryControlMenu(OpenFile& /*file*/, void* argument) {
    return controls_.QueryMenu(As<v4l2_querymenu>(argument));
}

int Camera::GetControl(OpenFile& /*file*/, void* argument) {
    return controls_.Get(As<v4l2_control>(argument));
}

int Camera::SetControl(OpenFile& file, void* argument) {
    std::vector<uint32_t> changed;
    const int error = controls_.Set(As<v4l2_control>(argument), changed);
    TellChanged(file, changed);
    return error;
}

int Camera::GetControls(OpenFile& /*file*/, void* argument) {
    return controls_.GetExtended(As<v4l2_ext_controls>(argument));
}

int Camera::SetControls(OpenFile& file, void* argument) {
    std::vector<uint32_t> changed;
    const int error = controls_.SetExtended(As<v4l2_ext_controls>(argument), false, changed);
    TellChanged(file, changed);
    return error;
}

int Camera::TryControls(OpenFile& /*file*/, void* argument) {
    std::vector<uint32_t> changed;
    return controls_.SetExtended(As<v4l2_ext_controls>(argument), true, changed);
}

uint32_t Camera::GreatestPriority() const {
    uint32_t greatest = V4L2_PRIORITY_UNSET;
    for (const auto& [id, file] : files_) {
        greatest = std::max(greatest, file.priority);
    }
    return greatest;
}

int Camera::GetPriority(OpenFile& /*file*/, void* argument) {
    As<uint32_t>(argument) = GreatestPriority();
    return 0;
}

int Camera::SetPriority(OpenFile& file, void* argument) {
    const uint32_t priority = As<uint32_t>(argument);
    if (priority < V4L2_PRIORITY_BACKGROUND || priority > V4L2_PRIORITY_RECORD) {
        return EINVAL;
    }
    file.priority = priority;
    return 0;
}

int Camera::Subscribe(OpenFile& file, void* argument) {
    const auto& subscription = As<v4l2_event_subscription>(argument);
    v4l2_event event{};
    if (subscription.type != V4L2_EVENT_CTRL || !controls_.Describe(subscription.id, event)) {
        return EINVAL;
    }
    const auto is_same = [&](const Subscription& other) {
        return other.type == subscription.type && other.id == subscription.id;
    };
    if (std::any_of(file.subscriptions.begin(), file.subscriptions.end(), is_same)) {
        return 0;
    }
    file.subscriptions.push_back({subscription.type, subscription.id, subscription.flags});
    if ((subscription.flags & V4L2_EVENT_SUB_FL_SEND_INITIAL) != 0 &&
        event.u.ctrl.type != V4L2_CTRL_TYPE_CTRL_CLASS) {
        event.u.ctrl.changes = V4L2_EVENT_CTRL_CH_VALUE | V4L2_EVENT_CTRL_CH_FLAGS;
        PushEvent(file, event);
    }
    return 0;
}

int Camera::Unsubscribe(OpenFile& file, void* argument) {
    const auto& subscription = As<v4l2_event_subscription>(argument);
    const bool all = subscription.type == V4L2_EVENT_ALL;
    const auto matches = [&](uint32_t type, uint32_t id) {
        return all || (type == subscription.type && id == subscription.id);
    };
    std::erase_if(file.subscriptions, [&](const Subscription& s) { return matches(s.type, s.id); });
    std::erase_if(file.events, [&](const v4l2_event& event) { return matches(event.type, event.id); });
    MarkEvent(file);
    return 0;
}

int Camera::DequeueEvent(OpenFile& file, void* argument) {
    if (file.events.empty()) {
        return ENOENT;
    }
    auto& event = As<v4l2_event>(argument);
    event = file.events.front();
    file.events.pop_front();
    event.pending = static_cast<uint32_t>(file.events.size());
    MarkEvent(file);
    return 0;
}

void Camera::TellChanged(const OpenFile& origin, const std::vector<uint32_t>& changed) {
    for (const uint32_t id : changed) {
        v4l2_event event{};
        controls_.Describe(id, event);
        for (auto& [file_id, file] : files_) {
            for (const Subscription& subscription : file.subscriptions) {
                const bool feedback = (subscription.flags & V4L2_EVENT_SUB_FL_ALLOW_FEEDBACK) != 0;
                if (subscription.id == id && (file_id != origin.id || feedback)) {
                    PushEvent(file, event);
                }
            }
        }
    }
}

void Camera::PushEvent(OpenFile& file, v4l2_event event) {
    event.sequence = file.event_sequence++;
    clock_gettime(CLOCK_MONOTONIC, &event.timestamp);
    // Only the last of a control's events is kept; it tells of all that changed.
    const auto older = std::find_if(file.events.begin(), file.events.end(), [&](const v4l2_event& other) {
        return other.type == event.type && other.id == event.id;
    });
    if (older != file.events.end()) {
        event.u.ctrl.changes |= older->u.ctrl.changes;
        file.events.erase(older);
    }
    file.events.push_back(event);
    MarkEvent(file);
}

// A second urgent byte would turn the first into an ordinary one, so there is never more than one.
void Camera::MarkEvent(OpenFile& file) {
    if (IsOwner(file)) {
        board_.pending_events.store(static_cast<uint32_t>(file.events.size()), std::memory_order_relaxed);
    }
    if (!file.events.empty() && !file.event_marked) {
        file.event_marked = true;
        file.end.SendEventMark();
    }
}

}  // namespace zumod::vcam
