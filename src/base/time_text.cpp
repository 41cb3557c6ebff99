#include "src/base/time_text.h"

#include <chrono>
#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "src/base/str_ptime.h"

namespace zumod {
namespace {

struct Unit {
    const char* name;
    std::int64_t nanoseconds;
};
constexpr Unit kUnits[] = {
    {"hours", 3'600'000'000'000}, {"minutes", 60'000'000'000}, {"seconds", 1'000'000'000},
    {"milliseconds", 1'000'000},  {"microseconds", 1'000},     {"nanoseconds", 1},
};

// The number at the start of `text` minus `base`, truncated to the field's width: a larger number wraps
// around.
int ReadField(const char* text, unsigned long base = 0) {
    return static_cast<int>(static_cast<unsigned long>(std::strtol(text, nullptr, 10)) - base);
}

// The position after the next `separator`, or null; null stays null.
const char* After(const char* text, char separator) {
    const char* const found = text == nullptr ? nullptr : std::strchr(text, separator);
    return found == nullptr ? nullptr : found + 1;
}

// The caller's formats cannot be checked here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
// Returns 0 if the text does not fit; the content of `out` is then undefined.
template <std::size_t kSize>
std::size_t FormatFields(char (&out)[kSize], const char* format, const std::tm& fields) {
    return std::strftime(out, kSize, format, &fields);
}
#pragma GCC diagnostic pop

}  // namespace

std::string FormatTimeUtc(std::time_t seconds, const std::string& format) {
    // The header documents the use of the shared result.
    const std::tm* const fields = std::gmtime(&seconds);  // NOLINT(concurrency-mt-unsafe)
    if (fields == nullptr) {
        return {};
    }
    char text[100];
    return {text, FormatFields(text, format.c_str(), *fields)};
}

std::string FormatNowUtc(const std::string& format) {
    return FormatTimeUtc(std::time(nullptr), format);
}

int FormatLocalDateTime(std::string& out, std::time_t seconds) {
    // As in FormatTimeUtc.
    const std::tm* const fields = std::localtime(&seconds);  // NOLINT(concurrency-mt-unsafe)
    if (fields != nullptr) {
        char text[128];
        // The largest year that fits tm_year does not fit an int after 1900 is added.
        std::snprintf(text, sizeof text, "%04ld-%02d-%02d %02d:%02d:%02d", fields->tm_year + 1900L,
                      fields->tm_mon + 1, fields->tm_mday, fields->tm_hour, fields->tm_min, fields->tm_sec);
        out = text;
    }
    return 0;
}

int ParseLocalDateTime(const std::string& text, std::time_t& seconds) {
    const char* const year = text.c_str();
    const char* const month = After(year, '-');
    const char* const day = After(month, '-');
    if (day == nullptr) {
        std::printf("strDateStr[%s] err \n", year);
        return -1;
    }
    const char* const hour = After(day, ' ');
    const char* const minute = After(hour, ':');
    const char* const second = After(minute, ':');

    std::tm fields{};
    fields.tm_year = ReadField(year, 1900);
    fields.tm_mon = ReadField(month, 1);
    fields.tm_mday = ReadField(day);
    fields.tm_hour = hour == nullptr ? 0 : ReadField(hour);
    fields.tm_min = minute == nullptr ? 0 : ReadField(minute);
    fields.tm_sec = second == nullptr ? 0 : ReadField(second);
    seconds = std::mktime(&fields);
    return 0;
}

int ParseIsoDateTime(const std::string& text, std::tm& fields) {
    ParseTime("%Y-%m-%dT%H:%M:%S", text, fields);
    return 1;
}

int ParseTime(const std::string& format, const std::string& text, std::tm& fields) {
    StrPTime(text.c_str(), format.c_str(), fields);
    return 0;
}

int ParseTimeToSeconds(const std::string& format, const std::string& text, std::time_t& seconds) {
    std::tm fields{};
    ParseTime(format, text, fields);
    seconds = std::mktime(&fields);
    return 0;
}

void FormatHttpDate(std::string& out, const std::string& secondsText) {
    const std::time_t seconds = secondsText.empty() ? std::time(nullptr) : std::stoll(secondsText);
    std::tm fields{};
    if (gmtime_r(&seconds, &fields) == nullptr) {
        return;
    }
    // Required by the contract: process-wide, and not restored.
    std::setlocale(LC_TIME, "en_US.UTF-8");  // NOLINT(concurrency-mt-unsafe)
    char text[128];
    out.assign(text, std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT+00:00", &fields));
}

std::string NowInUnit(const std::string& unit) {
    for (const Unit& known : kUnits) {
        if (unit == known.name) {
            const auto now = std::chrono::system_clock::now().time_since_epoch();
            const std::int64_t nanoseconds =
                std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
            char text[32];
            std::snprintf(text, sizeof text, "%ld", nanoseconds / known.nanoseconds);
            return text;
        }
    }
    return {};
}

}  // namespace zumod
