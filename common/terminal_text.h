// Text that fits a terminal's line.
//
// Thread rule: pure functions and a system call; any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace zumod {

// The columns of the terminal behind the descriptor. Nothing if it is not a terminal or does not know.
std::optional<size_t> TerminalColumns(int descriptor);

// How many columns UTF-8 text takes: two for a wide character, none for a combining one. One for each byte
// that is not UTF-8.
size_t DisplayWidth(std::string_view text);

// The text, or its beginning and "…" if it takes more than `columns`.
std::string Shortened(std::string_view text, size_t columns);

}  // namespace zumod
