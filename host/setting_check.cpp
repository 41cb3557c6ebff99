#include "host/setting_check.h"

#include "codec/setting_keys.h"

namespace zumod::host {
namespace {

constexpr char kCodecPrefix[] = "zu.codec.";

}  // namespace

std::string SettingMistake(const std::string& key, const std::string& value) {
    if (!key.starts_with(kCodecPrefix)) {
        return {};
    }
    std::string known;
    for (const SettingKey* setting : kSettingKeys) {
        if (key == setting->name) {
            std::string mistake;
            if (!IsSettingValue(*setting, value)) {
                mistake.append(key).append(" is wrong, the codec will use its default: it takes ");
                mistake.append(setting->values).append(", not \"").append(value).append("\"");
            }
            return mistake;
        }
        known.append(known.empty() ? "" : ", ").append(setting->name);
    }
    return key + " is unknown to the reference codec, which reads " + known;
}

}  // namespace zumod::host
