// The few controls a virtual camera has. They keep what is set and do not change the picture, which stays
// comparable byte for byte. Guarded by its camera's lock.
#pragma once

#include <linux/videodev2.h>

#include <cstdint>
#include <vector>

namespace zumod::vcam {

struct Control {
    uint32_t id;
    v4l2_ctrl_type type;
    const char* name;
    int32_t minimum;
    int32_t maximum;
    int32_t step;
    int32_t initial;
    uint32_t flags;
    std::vector<const char*> menu;
};

class Controls {
public:
    Controls();

    // Each returns 0 or errno. `changed` lists the controls whose value became another.
    int Query(v4l2_queryctrl& query) const;
    int QueryExtended(v4l2_query_ext_ctrl& query) const;
    int QueryMenu(v4l2_querymenu& menu) const;
    int Get(v4l2_control& control) const;
    int Set(v4l2_control& control, std::vector<uint32_t>& changed);
    int GetExtended(v4l2_ext_controls& controls) const;
    int SetExtended(v4l2_ext_controls& controls, bool only_try, std::vector<uint32_t>& changed);

    // The event that tells of a control; false for an unknown one.
    bool Describe(uint32_t id, v4l2_event& event) const;

private:
    const Control* Find(uint32_t id) const;
    // The control a query asks for, by its id or as the one after it.
    const Control* FindAsked(uint32_t id) const;
    int32_t& ValueOf(const Control& control);
    int32_t ValueOf(const Control& control) const;
    int Check(const v4l2_ext_controls& controls, bool writes, uint32_t& failed) const;

    std::vector<Control> controls_;
    std::vector<int32_t> values_;
};

}  // namespace zumod::vcam
