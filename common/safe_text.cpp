#include "common/safe_text.h"

#include <utf8.h>

#include <cstdint>
#include <cstdio>

namespace zumod {
namespace {

bool IsSafe(uint32_t code) {
    const bool control = code < 0x20 || (code >= 0x7F && code < 0xA0);
    const bool line_or_direction = code == 0x061C || code == 0x200E || code == 0x200F ||
                                   (code >= 0x2028 && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
    return !control && !line_or_direction && code != '\\' && code != 0xFEFF;
}

std::string EscapeByte(char byte) {
    char text[8];
    std::snprintf(text, sizeof text, "\\x%02x", static_cast<unsigned char>(byte));
    return text;
}

std::string EscapeCharacter(uint32_t code) {
    char text[16];
    std::snprintf(text, sizeof text, "\\u%04x", code);
    return text;
}

}  // namespace

std::string SafeText(std::string_view text) {
    std::string safe;
    for (auto next = text.begin(); next != text.end();) {
        const auto valid_end = utf8::find_invalid(next, text.end());
        while (next != valid_end) {
            const auto character = next;
            const uint32_t code = utf8::unchecked::next(next);
            if (IsSafe(code)) {
                safe.append(character, next);
            } else {
                safe += code < 0x80 ? EscapeByte(*character) : EscapeCharacter(code);
            }
        }
        if (next != text.end()) {
            safe += EscapeByte(*next++);
        }
    }
    return safe;
}

}  // namespace zumod
