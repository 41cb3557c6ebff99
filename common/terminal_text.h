// Text that fits a terminal's line.
//
// Thread rule: pure functions and a system call; any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace zumod {

// The width of a terminal that does not say how wide it is.
inline constexpr size_t kUsualColumns = 80;
// Clears the line of a terminal.
inline constexpr char kClearLine[] = "\r\033[K";

// The columns of the terminal behind the descriptor. Nothing if it is not a terminal or does not know.
std::optional<size_t> TerminalColumns(int descriptor);

// How many columns UTF-8 text takes: two for a wide character, none for a combining one. One for each byte
// that is not UTF-8.
size_t DisplayWidth(std::string_view text);

// The text, or its beginning and "…" if it takes more than `columns`.
std::string Shortened(std::string_view text, size_t columns);

}  // namespace zumod
