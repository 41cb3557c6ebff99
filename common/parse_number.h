// A number from a text that contains nothing else.
//
// Thread rule: a pure function; any thread.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace zumod {

// Decimal, without a "+" or spaces. Nothing for any other text, and for a number that the type cannot hold.
template <class Number>
std::optional<Number> ParseNumber(std::string_view text) {
    Number number{};
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end ? std::optional(number) : std::nullopt;
}

}  // namespace zumod
