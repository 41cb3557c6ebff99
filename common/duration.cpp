#include "common/duration.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace zumod {
namespace {

constexpr double kMostSeconds = 1e6;

// A number as CLI11 reads it, at the beginning of `text`, which is shortened by it. Nothing if there is none.
std::optional<double> TakeNumber(std::string_view& text) {
    const size_t length = std::min(text.find_first_not_of("0123456789."), text.size());
    const std::string digits(text.substr(0, length));
    text.remove_prefix(length);
    char* end = nullptr;
    const double number = std::strtod(digits.c_str(), &end);
    return digits.empty() || *end != '\0' ? std::nullopt : std::optional(number);
}

// "1m30s": each unit at most once, the largest first. The last number may have no unit: seconds.
std::optional<double> SecondsOfUnits(std::string_view text) {
    double seconds = 0;
    std::string_view units = "hms";
    do {
        const auto number = TakeNumber(text);
        const char unit = text.empty() ? 's' : text.front();
        const size_t at = units.find(unit);
        if (!number || at == std::string_view::npos) {
            return std::nullopt;
        }
        text.remove_prefix(text.empty() ? 0 : 1);
        units.remove_prefix(at + 1);
        seconds += *number * (unit == 'h' ? 3600 : unit == 'm' ? 60 : 1);
    } while (!text.empty());
    return seconds;
}

// "01:30" or "00:01:30".
std::optional<double> SecondsOfClock(std::string_view text) {
    double seconds = 0;
    for (int parts = 1; parts <= 3; ++parts) {
        const auto number = TakeNumber(text);
        if (!number || (parts > 1 && *number >= 60)) {
            return std::nullopt;
        }
        seconds = seconds * 60 + *number;
        if (text.empty()) {
            return parts > 1 ? std::optional(seconds) : std::nullopt;
        }
        if (text.front() != ':') {
            return std::nullopt;
        }
        text.remove_prefix(1);
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::chrono::steady_clock::duration> ParseDuration(const std::string& text) {
    const auto seconds = text.find(':') == std::string::npos ? SecondsOfUnits(text) : SecondsOfClock(text);
    if (!seconds || *seconds <= 0 || *seconds > kMostSeconds) {
        return std::nullopt;
    }
    const auto duration = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(*seconds));
    return duration.count() > 0 ? std::optional(duration) : std::nullopt;
}

}  // namespace zumod
