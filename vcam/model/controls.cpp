#include "vcam/model/controls.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace zumod::vcam {

struct Control {
    uint32_t id;
    v4l2_ctrl_type type;
    const char* name;
    int32_t minimum = 0;
    int32_t maximum = 0;
    int32_t step = 0;
    int32_t initial = 0;
    uint32_t flags = 0;
    std::span<const char* const> menu = {};
};

namespace {

constexpr const char* kPowerLineFrequencies[] = {"Disabled", "50 Hz", "60 Hz"};

// In order of their ids.
constexpr Control kControls[] = {
    {.id = V4L2_CID_USER_CLASS,
     .type = V4L2_CTRL_TYPE_CTRL_CLASS,
     .name = "User Controls",
     .flags = V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY},
    {V4L2_CID_BRIGHTNESS, V4L2_CTRL_TYPE_INTEGER, "Brightness", 0, 255, 1, 128, V4L2_CTRL_FLAG_SLIDER},
    {V4L2_CID_CONTRAST, V4L2_CTRL_TYPE_INTEGER, "Contrast", 0, 255, 1, 128, V4L2_CTRL_FLAG_SLIDER},
    {V4L2_CID_AUTO_WHITE_BALANCE, V4L2_CTRL_TYPE_BOOLEAN, "White Balance, Automatic", 0, 1, 1, 1},
    {V4L2_CID_POWER_LINE_FREQUENCY, V4L2_CTRL_TYPE_MENU, "Power Line Frequency", 0, 2, 1, 1, 0,
     kPowerLineFrequencies},
};

const Control* Find(uint32_t id) {
    const auto* found = std::ranges::find(kControls, id, &Control::id);
    return found == std::end(kControls) ? nullptr : found;
}

// As Find, without the entry that is only a heading.
const Control* FindWithValue(uint32_t id) {
    return id == V4L2_CID_USER_CLASS ? nullptr : Find(id);
}

// The control that a query asks for: the one with this id, or the next one after it.
const Control* FindAsked(uint32_t id) {
    const uint32_t next = V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;
    if ((id & next) == 0) {
        return Find(id);
    }
    if ((id & V4L2_CTRL_FLAG_NEXT_CTRL) == 0) {
        return nullptr;  // there are no compound controls
    }
    const auto* found = std::ranges::upper_bound(kControls, id & ~next, {}, &Control::id);
    return found == std::end(kControls) ? nullptr : found;
}

// What both kinds of query tell.
template <class Query>
void FillIn(const Control& control, Query& query) {
    query = {};
    query.id = control.id;
    query.type = control.type;
    std::string_view(control.name).copy(reinterpret_cast<char*>(query.name), sizeof query.name - 1);
    query.minimum = control.minimum;
    query.maximum = control.maximum;
    query.step = static_cast<decltype(query.step)>(control.step);
    query.default_value = control.initial;
    query.flags = control.flags;
}

// Adjusts a value as the kernel does before it calls a driver. Returns false for a value that the kernel
// rejects.
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

Controls::Controls() {
    for (const Control& control : kControls) {
        m_values.push_back(control.initial);
    }
}

int32_t Controls::ValueOf(const Control& control) const {
    return m_values[static_cast<size_t>(&control - kControls)];
}

void Controls::SetValue(const Control& control, int32_t value) {
    int32_t& stored = m_values[static_cast<size_t>(&control - kControls)];
    if (stored != value) {
        stored = value;
        m_changed.push_back(control.id);
    }
}

int Controls::Query(v4l2_queryctrl& query) const {
    const Control* control = FindAsked(query.id);
    if (control == nullptr) {
        return EINVAL;
    }
    FillIn(*control, query);
    return 0;
}

int Controls::QueryExtended(v4l2_query_ext_ctrl& query) const {
    const Control* control = FindAsked(query.id);
    if (control == nullptr) {
        return EINVAL;
    }
    FillIn(*control, query);
    query.elem_size = sizeof(int32_t);
    query.elems = 1;
    return 0;
}

int Controls::QueryMenu(v4l2_querymenu& menu) const {
    const Control* control = Find(menu.id);
    if (control == nullptr || menu.index >= control->menu.size()) {
        return EINVAL;
    }
    std::memset(menu.name, 0, sizeof menu.name);
    std::string_view(control->menu[menu.index])
        .copy(reinterpret_cast<char*>(menu.name), sizeof menu.name - 1);
    menu.reserved = 0;
    return 0;
}

int Controls::Get(v4l2_control& control) const {
    const Control* found = FindWithValue(control.id);
    if (found == nullptr) {
        return EINVAL;
    }
    control.value = ValueOf(*found);
    return 0;
}

int Controls::Set(v4l2_control& control) {
    const Control* found = FindWithValue(control.id);
    if (found == nullptr) {
        return EINVAL;
    }
    if (!Adjust(*found, control.value)) {
        return ERANGE;
    }
    SetValue(*found, control.value);
    return 0;
}

int Controls::Check(uint32_t which, std::span<const v4l2_ext_control> controls, bool writes,
                    uint32_t& failed) const {
    const bool is_class = which == V4L2_CTRL_CLASS_USER;
    if (which != V4L2_CTRL_WHICH_CUR_VAL && !is_class && (writes || which != V4L2_CTRL_WHICH_DEF_VAL)) {
        return EINVAL;
    }
    for (failed = 0; failed < controls.size(); ++failed) {
        const v4l2_ext_control& asked = controls[failed];
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

int Controls::GetExtended(v4l2_ext_controls& request, std::span<v4l2_ext_control> controls) const {
    uint32_t failed = 0;
    const int error = Check(request.which, controls, false, failed);
    // Like the kernel: if nothing was read, the index does not say which control was wrong.
    request.error_idx = request.count;
    if (error != 0) {
        return error;
    }
    for (v4l2_ext_control& asked : controls) {
        const Control& control = *Find(asked.id);
        asked.value = request.which == V4L2_CTRL_WHICH_DEF_VAL ? control.initial : ValueOf(control);
    }
    return 0;
}

int Controls::TryExtended(v4l2_ext_controls& request, std::span<v4l2_ext_control> controls) const {
    uint32_t failed = 0;
    const int error = Check(request.which, controls, true, failed);
    request.error_idx = error != 0 ? failed : request.count;
    if (error != 0) {
        return error;
    }
    for (v4l2_ext_control& asked : controls) {
        int32_t value = asked.value;  // the structure is packed
        Adjust(*Find(asked.id), value);
        asked.value = value;
    }
    return 0;
}

int Controls::SetExtended(v4l2_ext_controls& request, std::span<v4l2_ext_control> controls) {
    const int error = TryExtended(request, controls);
    request.error_idx = request.count;  // like the kernel: nothing was set, so no control is named
    if (error != 0) {
        return error;
    }
    for (const v4l2_ext_control& asked : controls) {
        SetValue(*Find(asked.id), asked.value);
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
