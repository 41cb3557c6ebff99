// Text from another machine or a device, made safe for a terminal and a log.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

namespace zumod {

// The text as UTF-8 without anything that could end a line, control a terminal or reorder the text around it.
// Control characters, marks that change the writing direction, backslashes and bytes that are not UTF-8
// become "\x1b" for a byte or "\u202e" for a character. The result can be turned back into the input.
std::string SafeText(std::string_view text);

}  // namespace zumod
