// The controls of a camera: the body of a controls message, and the settings on the command line.
//
// Thread rule: values and pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "common/camera_controls.h"
#include "common/error.h"

namespace zumod::peer {

struct ControlEntry {
    int32_t property = 0;
    int32_t value = 0;
    int32_t minimum = 0;
    int32_t maximum = 0;
    int32_t step = 0;
    int32_t default_value = 0;
    bool has_automatic = false;
    bool is_automatic = false;
    bool is_read_only = false;

    bool operator==(const ControlEntry&) const = default;
};

// More than the protocol has numbers for.
inline constexpr size_t kMostControls = 64;

// The controls in the records of a controls message. Controls whose number this program does not know are
// left out.
Expected<std::vector<ControlEntry>> ParseControlList(std::span<const uint8_t> records);

// "NAME=VALUE", where the value is a number, "auto" or "default".
struct ControlSetting {
    const CameraControl* control;
    std::string text;  // the whole setting
    enum class Kind { kValue, kAutomatic, kDefault } kind;
    int32_t value;

    bool operator==(const ControlSetting&) const = default;
};

// The error names the nearest control if there is none of this name.
Expected<ControlSetting> ParseSetting(const std::string& text);

struct ControlChange {
    int32_t property;
    std::optional<int32_t> value;  // none: automatic
    int32_t step;                  // a camera may round the value by less than this

    bool operator==(const ControlChange&) const = default;
};

// The change that a setting means for a camera with these controls. `camera` is its label, for the error.
Expected<ControlChange> CheckSetting(const ControlSetting& setting, const std::vector<ControlEntry>& controls,
                                     const std::string& camera);

// Null if the camera does not have it.
const ControlEntry* FindEntry(const std::vector<ControlEntry>& controls, int32_t property);

// Whether the control is now what the change asked for.
bool IsDone(const ControlChange& change, const ControlEntry& now);

// "128" or "automatic".
std::string ValueText(const ControlEntry& control);

// In columns.
std::string ControlTable(const std::vector<ControlEntry>& controls);

}  // namespace zumod::peer
