// Text from a host, made fit for a terminal.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zumod::peer {

// Keeps what UTF-8 can be shown. Control characters, marks that turn the writing direction, backslashes and
// bytes that are no UTF-8 become "\x1b" for a byte or "\u202e" for a character.
std::string SafeText(std::string_view text);

// Characters of UTF-8, for columns.
size_t CharacterCount(std::string_view text);

}  // namespace zumod::peer
