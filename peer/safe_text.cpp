#include "peer/safe_text.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

namespace zumod::peer {
namespace {

struct Character {
    uint32_t code = 0;
    size_t bytes = 0;  // 0 when the text does not begin with a character
};

bool IsContinuation(char byte) {
    return (static_cast<uint8_t>(byte) & 0xC0) == 0x80;
}

// As strict as RFC 3629: no overlong form, no surrogate, nothing past 10FFFF.
Character FirstCharacter(std::string_view text) {
    static constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    const auto lead = static_cast<uint8_t>(text[0]);
    if (lead < 0x80) {
        return {lead, 1};
    }
    const size_t bytes = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < bytes) {
        return {};
    }
    uint32_t code = lead & (0xFFU >> (bytes + 1));
    for (size_t i = 1; i < bytes; ++i) {
        if (!IsContinuation(text[i])) {
            return {};
        }
        code = code << 6 | (static_cast<uint8_t>(text[i]) & 0x3FU);
    }
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    return code < kLeast[bytes] || surrogate || code > 0x10FFFF ? Character{} : Character{code, bytes};
}

bool IsHarmless(uint32_t code) {
    const bool control = code < 0x20 || (code >= 0x7F && code < 0xA0);
    const bool line_or_direction = code == 0x061C || code == 0x200E || code == 0x200F ||
                                   (code >= 0x2028 && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
    return !control && !line_or_direction && code != '\\' && code != 0xFEFF;
}

std::string ByteEscape(uint32_t byte) {
    char text[8];
    std::snprintf(text, sizeof text, "\\x%02x", byte & 0xFF);
    return text;
}

std::string CharacterEscape(uint32_t code) {
    char text[16];
    std::snprintf(text, sizeof text, "\\u%04x", code);
    return text;
}

}  // namespace

std::string SafeText(std::string_view text) {
    std::string safe;
    while (!text.empty()) {
        Character character = FirstCharacter(text);
        if (character.bytes == 0) {
            character = {static_cast<uint8_t>(text[0]), 1};
            safe += ByteEscape(character.code);
        } else if (IsHarmless(character.code)) {
            safe += text.substr(0, character.bytes);
        } else {
            safe += character.code < 0x80 ? ByteEscape(character.code) : CharacterEscape(character.code);
        }
        text.remove_prefix(character.bytes);
    }
    return safe;
}

size_t CharacterCount(std::string_view text) {
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return !IsContinuation(byte); }));
}

}  // namespace zumod::peer
