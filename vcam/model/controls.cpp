#include "vcam/model/controls.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace zumod::vcam {
namespace {

template <size_t kSize>
void CopyName(uint8_t (&to)[kSize], const char* from) {
    std::memset(to, 0, kSize);
    std::memcpy(to, from, std::min(std::strlen(from), kSize - 1));
}

template <size_t kSize>
void CopyName(char (&to)[kSize], const char* from) {
    std::memset(to, 0, kSize);
    std::memcpy(to, from, std::min(std::strlen(from), kSize - 1));
}

// What the kernel makes of a value before a driver sees it; false for one it refuses.
bool Adjust(const Control& control, int32_t& value) {
    switch (control.type) {
        case V4L2_CTRL_TYPE_INTEGER: {
            const int64_t inside =
                std::clamp<int64_t>(int64_t{value} + control.step / 2, control.minimum, control.maximum);
            value = static_cast<int32_t>(control.minimum +
                                         (inside - control.minimum) / control.step * control.step);
            return true;
        }
        case V4L2_CTRL_TYPE_BOOLEAN:
            value = value != 0 ? 1 : 0;
            return true;
        default:
            return value >= control.minimum && value <= control.maximum;
    }
}

}  // namespace

Controls::Controls()
    : controls_{
          {V4L2_CID_USER_CLASS,
           V4L2_CTRL_TYPE_CTRL_CLASS,
           "User Controls",
           0,
           0,
           0,
           0,
           V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY,
           {}},
          {V4L2_CID_BRIGHTNESS,
           V4L2_CTRL_TYPE_INTEGER,
           "Brightness",
           0,
           255,
           1,
           128,
           V4L2_CTRL_FLAG_SLIDER,
           {}},
          {V4L2_CID_CONTRAST, V4L2_CTRL_TYPE_INTEGER, "Contrast", 0, 255, 1, 128, V4L2_CTRL_FLAG_SLIDER, {}},
          {V4L2_CID_AUTO_WHITE_BALANCE,
           V4L2_CTRL_TYPE_BOOLEAN,
           "White Balance, Automatic",
           0,
           1,
           1,
           1,
           0,
           {}},
          {V4L2_CID_POWER_LINE_FREQUENCY,
           V4L2_CTRL_TYPE_MENU,
           "Power Line Frequency",
           0,
           2,
           1,
           1,
           0,
           {"Disabled", "50 Hz", "60 Hz"}},
      } {
    for (const Control& control : controls_) {
        values_.push_back(control.initial);
    }
}

const Control* Controls::Find(uint32_t id) const {
    const auto found = std::find_if(controls_.begin(), controls_.end(),
                                    [id](const Control& control) { return control.id == id; });
    return found == controls_.end() ? nullptr : &*found;
}

const Control* Controls::FindAsked(uint32_t id) const {
    const uint32_t next = V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;
    if ((id & next) == 0) {
        return Find(id);
    }
    if ((id & V4L2_CTRL_FLAG_NEXT_CTRL) == 0) {
        return nullptr;  // there are no compound controls
    }
    const auto found = std::find_if(controls_.begin(), controls_.end(),
                                    [&](const Control& control) { return control.id > (id & ~next); });
    return found == controls_.end() ? nullptr : &*found;
}

int32_t& Controls::ValueOf(const Control& control) {
    return values_[static_cast<size_t>(&control - controls_.data())];
}

int32_t Controls::ValueOf(const Control& control) const {
    return values_[static_cast<size_t>(&control - controls_.data())];
}

int Controls::Query(v4l2_queryctrl& query) const {
    const Control* control = FindAsked(query.id);
    if (control == nullptr) {
        return EINVAL;
    }
    query = {};
    query.id = control->id;
    query.type = control->type;
    CopyName(query.name, control->name);
    query.minimum = control->minimum;
    query.maximum = control->maximum;
    query.step = control->step;
    query.default_value = control->initial;
    query.flags = control->flags;
    return 0;
}

int Controls::QueryExtended(v4l2_query_ext_ctrl& query) const {
    const Control* control = FindAsked(query.id);
    if (control == nullptr) {
        return EINVAL;
    }
    query = {};
    query.id = control->id;
    query.type = control->type;
    CopyName(query.name, control->name);
    query.minimum = control->minimum;
    query.maximum = control->maximum;
    query.step = static_cast<__u64>(control->step);
    query.default_value = control->initial;
    query.flags = control->flags;
    query.elem_size = sizeof(int32_t);
    query.elems = 1;
    return 0;
}

int Controls::QueryMenu(v4l2_querymenu& menu) const {
    const Control* control = Find(menu.id);
    if (control == nullptr || menu.index >= control->menu.size()) {
        return EINVAL;
    }
    // The structure is packed: its name cannot be bound to a reference.
    const char* name = control->menu[menu.index];
    std::memset(menu.name, 0, sizeof menu.name);
    std::memcpy(menu.name, name, std::min(std::strlen(name), sizeof menu.name - 1));
    menu.reserved = 0;
    return 0;
}

int Controls::Get(v4l2_control& control) const {
    const Control* found = Find(control.id);
    if (found == nullptr || found->type == V4L2_CTRL_TYPE_CTRL_CLASS) {
        return EINVAL;
    }
    control.value = ValueOf(*found);
    return 0;
}

int Controls::Set(v4l2_control& control, std::vector<uint32_t>& changed) {
    const Control* found = Find(control.id);
    if (found == nullptr || found->type == V4L2_CTRL_TYPE_CTRL_CLASS) {
        return EINVAL;
    }
    if (!Adjust(*found, control.value)) {
        return ERANGE;
    }
    if (ValueOf(*found) != control.value) {
        ValueOf(*found) = control.value;
        changed.push_back(control.id);
    }
    return 0;
}

int Controls::Check(const v4l2_ext_controls& controls, bool writes, uint32_t& failed) const {
    const uint32_t which = controls.which;
    const bool is_class = which == V4L2_CTRL_CLASS_USER;
    if (which != V4L2_CTRL_WHICH_CUR_VAL && !is_class && (writes || which != V4L2_CTRL_WHICH_DEF_VAL)) {
        return EINVAL;
    }
    for (failed = 0; failed < controls.count; ++failed) {
        const v4l2_ext_control& asked = controls.controls[failed];
        const Control* control = Find(asked.id);
        if (control == nullptr || (is_class && V4L2_CTRL_ID2CLASS(asked.id) != which)) {
            return EINVAL;
        }
        if (control->type == V4L2_CTRL_TYPE_CTRL_CLASS) {
            return EACCES;
        }
        int32_t value = asked.value;
        if (writes && !Adjust(*control, value)) {
            return ERANGE;
        }
    }
    return 0;
}

int Controls::GetExtended(v4l2_ext_controls& controls) const {
    uint32_t failed = 0;
    const int error = Check(controls, false, failed);
    // Nothing was read: the kernel then does not say which one was at fault.
    controls.error_idx = controls.count;
    if (error != 0) {
        return error;
    }
    for (uint32_t i = 0; i < controls.count; ++i) {
        const Control& control = *Find(controls.controls[i].id);
        controls.controls[i].value =
            controls.which == V4L2_CTRL_WHICH_DEF_VAL ? control.initial : ValueOf(control);
    }
    return 0;
}

int Controls::SetExtended(v4l2_ext_controls& controls, bool only_try, std::vector<uint32_t>& changed) {
    uint32_t failed = 0;
    const int error = Check(controls, true, failed);
    controls.error_idx = error != 0 && only_try ? failed : controls.count;
    if (error != 0) {
        return error;
    }
    for (uint32_t i = 0; i < controls.count; ++i) {
        v4l2_ext_control& asked = controls.controls[i];
        const Control& control = *Find(asked.id);
        int32_t value = asked.value;
        Adjust(control, value);
        asked.value = value;
        if (!only_try && ValueOf(control) != value) {
            ValueOf(control) = value;
            changed.push_back(control.id);
        }
    }
    return 0;
}

bool Controls::Describe(uint32_t id, v4l2_event& event) const {
    const Control* control = Find(id);
    if (control == nullptr) {
        return false;
    }
    event = {};
    event.type = V4L2_EVENT_CTRL;
    event.id = id;
    event.u.ctrl.changes = V4L2_EVENT_CTRL_CH_VALUE;
    event.u.ctrl.type = control->type;
    event.u.ctrl.value = ValueOf(*control);
    event.u.ctrl.flags = control->flags;
    event.u.ctrl.minimum = control->minimum;
    event.u.ctrl.maximum = control->maximum;
    event.u.ctrl.step = control->step;
    event.u.ctrl.default_value = control->initial;
    return true;
}

}  // namespace zumod::vcam
