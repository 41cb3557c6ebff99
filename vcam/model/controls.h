// The controls of a virtual camera. They keep the values that are set, and do not change the picture:
// tests compare pictures byte by byte.
//
// Thread rule: the camera's lock guards it.
#pragma once

#include <linux/videodev2.h>

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

namespace zumod::vcam {

struct Control;

class Controls {
public:
    Controls();

    // Each is the request of that name, and returns 0 or errno.
    int Query(v4l2_queryctrl& query) const;
    int QueryExtended(v4l2_query_ext_ctrl& query) const;
    int QueryMenu(v4l2_querymenu& menu) const;
    int Get(v4l2_control& control) const;
    int Set(v4l2_control& control);
    // The controls are those in the span; the request's pointer is not used.
    int GetExtended(v4l2_ext_controls& request, std::span<v4l2_ext_control> controls) const;
    int SetExtended(v4l2_ext_controls& request, std::span<v4l2_ext_control> controls);
    int TryExtended(v4l2_ext_controls& request, std::span<v4l2_ext_control> controls) const;

    // The controls whose value was changed since the last call.
    std::vector<uint32_t> TakeChanged() { return std::exchange(m_changed, {}); }
    // Fills in the event that reports a control's value. Returns false for an unknown control.
    bool Describe(uint32_t id, v4l2_event& event) const;

private:
    int32_t ValueOf(const Control& control) const;
    void SetValue(const Control& control, int32_t value);
    int Check(uint32_t which, std::span<const v4l2_ext_control> controls, bool writes,
              uint32_t& failed) const;

    std::vector<int32_t> m_values;  // in the order of the table of controls
    std::vector<uint32_t> m_changed;
};

}  // namespace zumod::vcam
