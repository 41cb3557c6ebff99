#include "peer/control_list.h"

#include <algorithm>
#include <array>
#include <cstdlib>

#include "common/parse_number.h"
#include "common/safe_text.h"
#include "common/word_distance.h"
#include "zumod/camera_channel.h"

namespace zumod::peer {
namespace {

std::string NameOf(const ControlEntry& entry) {
    return std::string(FindControl(entry.property)->name);
}

std::string RangeText(const ControlEntry& entry) {
    return std::to_string(entry.minimum) + " to " + std::to_string(entry.maximum) +
           (entry.step > 1 ? " by " + std::to_string(entry.step) : "");
}

std::string NamesOf(const std::vector<ControlEntry>& controls) {
    std::string names;
    for (const ControlEntry& entry : controls) {
        names.append(names.empty() ? "" : ", ").append(NameOf(entry));
    }
    return names;
}

}  // namespace

Expected<std::vector<ControlEntry>> ParseControlList(std::span<const uint8_t> records) {
    if (records.size() % sizeof(ControlRecord) != 0) {
        return Fail("camera controls in " + std::to_string(records.size()) + " bytes");
    }
    std::vector<ControlEntry> controls;
    for (; !records.empty(); records = records.subspan(sizeof(ControlRecord))) {
        const auto record = ReadRecord<ControlRecord>(records.data());
        if (FindControl(record.property) != nullptr) {
            controls.push_back({record.property, record.value, record.minimum, record.maximum, record.step,
                                record.default_value, (record.flags & kHasAutomatic) != 0,
                                (record.flags & kIsAutomatic) != 0, (record.flags & kIsReadOnly) != 0});
        }
    }
    return controls;
}

Expected<ControlSetting> ParseSetting(const std::string& text) {
    const size_t sign = text.find('=');
    const std::string name = text.substr(0, sign);
    if (sign == std::string::npos || name.empty()) {
        return Fail("takes CONTROL=VALUE, not \"" + SafeText(text) + "\"");
    }
    const CameraControl* const control =
        std::ranges::find(kControlTable, std::string_view(name), &CameraControl::name);
    if (control == std::end(kControlTable)) {
        const CameraControl& nearest = *std::ranges::min_element(
            kControlTable, {}, [&](const CameraControl& known) { return WordDistance(name, known.name); });
        return Fail("there is no control \"" + SafeText(name) + "\"; did you mean " +
                    std::string(nearest.name) + "?");
    }
    const std::string value = text.substr(sign + 1);
    if (value == "auto") {
        return ControlSetting{control, text, ControlSetting::Kind::kAutomatic, 0};
    }
    if (value == "default") {
        return ControlSetting{control, text, ControlSetting::Kind::kDefault, 0};
    }
    const auto number = ParseNumber<int32_t>(value);
    if (!number) {
        return Fail("the value of " + name + " is a number, auto or default, not \"" + SafeText(value) +
                    "\"");
    }
    return ControlSetting{control, text, ControlSetting::Kind::kValue, *number};
}

Expected<ControlChange> CheckSetting(const ControlSetting& setting, const std::vector<ControlEntry>& controls,
                                     const std::string& camera) {
    const std::string name(setting.control->name);
    const ControlEntry* const entry = FindEntry(controls, setting.control->property);
    if (entry == nullptr) {
        return Fail(camera + " has no " + name +
                    (controls.empty() ? "; it has no controls" : "; it has " + NamesOf(controls)));
    }
    if (setting.kind == ControlSetting::Kind::kAutomatic) {
        if (!entry->has_automatic) {
            return Fail(setting.text + ": " + camera + " has no automatic " + name);
        }
        return ControlChange{entry->property, std::nullopt, entry->step};
    }
    if (entry->is_read_only) {
        return Fail(setting.text + ": the " + name + " of " + camera + " cannot be changed");
    }
    const int32_t value =
        setting.kind == ControlSetting::Kind::kDefault ? entry->default_value : setting.value;
    if (value < entry->minimum || value > entry->maximum) {
        return Fail(setting.text + ": the " + name + " of " + camera + " is " + RangeText(*entry));
    }
    return ControlChange{entry->property, value, entry->step};
}

const ControlEntry* FindEntry(const std::vector<ControlEntry>& controls, int32_t property) {
    const auto found = std::ranges::find(controls, property, &ControlEntry::property);
    return found != controls.end() ? &*found : nullptr;
}

bool IsDone(const ControlChange& change, const ControlEntry& now) {
    if (!change.value) {
        return now.is_automatic;
    }
    return !now.is_automatic &&
           std::abs(int64_t{now.value} - *change.value) < std::max<int64_t>(change.step, 1);
}

std::string ValueText(const ControlEntry& control) {
    return control.is_automatic ? "automatic" : std::to_string(control.value);
}

std::string ControlTable(const std::vector<ControlEntry>& controls) {
    if (controls.empty()) {
        return "The camera has no controls.\n";
    }
    using Row = std::array<std::string, 5>;
    std::vector<Row> rows = {{"NAME", "VALUE", "RANGE", "DEFAULT", "AUTOMATIC"}};
    for (const ControlEntry& entry : controls) {
        rows.push_back({NameOf(entry), std::to_string(entry.value), RangeText(entry),
                        std::to_string(entry.default_value),
                        !entry.has_automatic ? "-"
                        : entry.is_automatic ? "on"
                                             : "off"});
    }
    std::string table;
    for (const Row& row : rows) {
        for (size_t column = 0; column + 1 < row.size(); ++column) {
            const auto width = [column](const Row& each) { return each[column].size(); };
            const size_t widest = width(*std::ranges::max_element(rows, {}, width));
            table += row[column] + std::string(widest + 2 - row[column].size(), ' ');
        }
        table += row.back() + "\n";
    }
    return table;
}

}  // namespace zumod::peer
