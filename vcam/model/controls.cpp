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
// A camera offers only the items with a name.
constexpr const char* kExposureModes[] = {nullptr, "Manual Mode", nullptr, "Aperture Priority Mode"};

constexpr Control Heading(uint32_t id, const char* name) {
    return {.id = id,
            .type = V4L2_CTRL_TYPE_CTRL_CLASS,
            .name = name,
            .flags = V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY};
}
constexpr Control Slider(uint32_t id, const char* name, int32_t minimum, int32_t maximum, int32_t step,
                         int32_t initial) {
    return {id, V4L2_CTRL_TYPE_INTEGER, name, minimum, maximum, step, initial, V4L2_CTRL_FLAG_SLIDER};
}
constexpr Control Switch(uint32_t id, const char* name) {
    return {id, V4L2_CTRL_TYPE_BOOLEAN, name, 0, 1, 1, 1};
}

// In order of their ids. As a webcam has them.
constexpr Control kControls[] = {
    Heading(V4L2_CID_USER_CLASS, "User Controls"),
    Slider(V4L2_CID_BRIGHTNESS, "Brightness", 0, 255, 1, 128),
    Slider(V4L2_CID_CONTRAST, "Contrast", 0, 255, 1, 128),
    Slider(V4L2_CID_SATURATION, "Saturation", 0, 255, 1, 64),
    Slider(V4L2_CID_HUE, "Hue", -180, 180, 1, 0),
    Switch(V4L2_CID_AUTO_WHITE_BALANCE, "White Balance, Automatic"),
    Slider(V4L2_CID_GAMMA, "Gamma", 72, 500, 1, 100),
    Slider(V4L2_CID_GAIN, "Gain", 0, 100, 1, 0),
    {V4L2_CID_POWER_LINE_FREQUENCY, V4L2_CTRL_TYPE_MENU, "Power Line Frequency", 0, 2, 1, 1, 0,
     kPowerLineFrequencies},
    Slider(V4L2_CID_WHITE_BALANCE_TEMPERATURE, "White Balance Temperature", 2800, 6500, 10, 4600),
    Slider(V4L2_CID_SHARPNESS, "Sharpness", 0, 6, 1, 3),
    Slider(V4L2_CID_BACKLIGHT_COMPENSATION, "Backlight Compensation", 0, 2, 1, 1),
    Heading(V4L2_CID_CAMERA_CLASS, "Camera Controls"),
    {V4L2_CID_EXPOSURE_AUTO, V4L2_CTRL_TYPE_MENU, "Auto Exposure", 0, 3, 1, 3, 0, kExposureModes},
    Slider(V4L2_CID_EXPOSURE_ABSOLUTE, "Exposure Time, Absolute", 1, 5000, 1, 157),
    Slider(V4L2_CID_PAN_ABSOLUTE, "Pan, Absolute", -36000, 36000, 3600, 0),
    Slider(V4L2_CID_TILT_ABSOLUTE, "Tilt, Absolute", -36000, 36000, 3600, 0),
    Slider(V4L2_CID_FOCUS_ABSOLUTE, "Focus, Absolute", 0, 250, 5, 0),
    Switch(V4L2_CID_FOCUS_AUTO, "Focus, Automatic Continuous"),
    Slider(V4L2_CID_ZOOM_ABSOLUTE, "Zoom, Absolute", 100, 500, 1, 100),
};

const Control* Find(uint32_t id) {
    const auto* found = std::ranges::find(kControls, id, &Control::id);
    return found == std::end(kControls) ? nullptr : found;
}

// As Find, without the entry that is only a heading.
const Control* FindWithValue(uint32_t id) {
    const Control* found = Find(id);
    return found == nullptr || found->type == V4L2_CTRL_TYPE_CTRL_CLASS ? nullptr : found;
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

// Adjusts a value as the kernel does before it calls a driver. Returns 0, or errno for a value that the
// kernel rejects.
int Adjust(const Control& control, int32_t& value) {
    switch (control.type) {
        case V4L2_CTRL_TYPE_INTEGER: {
            const int64_t inside =
                std::clamp<int64_t>(int64_t{value} + control.step / 2, control.minimum, control.maximum);
            value = static_cast<int32_t>(control.minimum +
                                         (inside - control.minimum) / control.step * control.step);
            return 0;
        }
        case V4L2_CTRL_TYPE_BOOLEAN:
            value = value != 0 ? 1 : 0;
            return 0;
        default:
            if (value < control.minimum || value > control.maximum) {
                return ERANGE;
            }
            return control.menu[static_cast<size_t>(value)] == nullptr ? EINVAL : 0;
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
    if (control == nullptr || menu.index >= control->menu.size() || control->menu[menu.index] == nullptr) {
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
    if (const int error = Adjust(*found, control.value); error != 0) {
        return error;
    }
    SetValue(*found, control.value);
    return 0;
}

int Controls::Check(uint32_t which, std::span<const v4l2_ext_control> controls, bool writes,
                    uint32_t& failed) const {
    const bool is_class = which == V4L2_CTRL_CLASS_USER || which == V4L2_CTRL_CLASS_CAMERA;
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
        if (const int error = writes ? Adjust(*control, value) : 0; error != 0) {
            return error;
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
