#include "common/safe_text.h"

#include <utf8.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>

namespace zumod {
namespace {

// Characters that are escaped, by their first and last code.
struct Range {
    uint32_t first;
    uint32_t last;
};
constexpr Range kUnsafe[] = {
    {0x00, 0x1F},      // control characters
    {'\\', '\\'},      // so that an escape cannot be forged
    {0x7F, 0x9F},      // control characters
    {0x2028, 0x202E},  // ends of lines, writing direction
    // Characters that Unicode lets programs show as nothing (Default_Ignorable_Code_Point), marks of the
    // writing direction among them. Two names that differ only in these look the same.
    {0xAD, 0xAD},
    {0x34F, 0x34F},
    {0x61C, 0x61C},
    {0x115F, 0x1160},
    {0x17B4, 0x17B5},
    {0x180B, 0x180F},
    {0x200B, 0x200F},
    {0x2060, 0x206F},
    {0x3164, 0x3164},
    {0xFE00, 0xFE0F},
    {0xFEFF, 0xFEFF},
    {0xFFA0, 0xFFA0},
    {0xFFF0, 0xFFFB},
    {0x1BCA0, 0x1BCA3},
    {0x1D173, 0x1D17A},
    {0xE0000, 0xE0FFF},
};

bool IsSafe(uint32_t code) {
    return std::none_of(std::begin(kUnsafe), std::end(kUnsafe),
                        [code](const Range& range) { return code >= range.first && code <= range.last; });
}

std::string EscapeByte(char byte) {
    char text[8];
    std::snprintf(text, sizeof text, "\\x%02x", static_cast<unsigned char>(byte));
    return text;
}

std::string EscapeCharacter(uint32_t code) {
    char text[16];
    std::snprintf(text, sizeof text, code <= 0xFFFF ? "\\u%04x" : "\\U%08x", code);
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
