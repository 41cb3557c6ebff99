#include "src/base/str_ptime.h"

#include <cstddef>

#include "src/base/text.h"

namespace zumod {
namespace {

constexpr const char* kWeekdays[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                     "Thursday", "Friday", "Saturday"};
constexpr const char* kShortWeekdays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* kMonths[] = {"January", "February", "March",     "April",   "May",      "June",
                                   "July",    "August",   "September", "October", "November", "December"};
constexpr const char* kShortMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

bool IsSpace(char c) {
    return IsCLocaleSpace(static_cast<unsigned char>(c)) != 0;
}

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

char Lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

const char* SkipSpace(const char* text) {
    while (IsSpace(*text)) {
        ++text;
    }
    return text;
}

// The position after `word`, or null. No word holds a zero, so the end of the text matches none.
const char* MatchWord(const char* text, const char* word) {
    for (; *word != '\0'; ++text, ++word) {
        if (Lower(*text) != Lower(*word)) {
            return nullptr;
        }
    }
    return text;
}

template <std::size_t kCount>
const char* ReadOneOf(const char* text, const char* const (&words)[kCount], int& index) {
    for (std::size_t i = 0; i < kCount; ++i) {
        if (const char* const end = MatchWord(text, words[i])) {
            index = static_cast<int>(i);
            return end;
        }
    }
    return nullptr;
}

// Full names first, because a short name is the start of its full name.
template <std::size_t kCount>
const char* ReadName(const char* text, const char* const (&names)[kCount],
                     const char* const (&short_names)[kCount], int& index) {
    if (const char* const end = ReadOneOf(text, names, index)) {
        return end;
    }
    return ReadOneOf(text, short_names, index);
}

struct Range {
    int low;
    int high;
    int digits;
};

const char* ReadNumber(const char* text, const Range& range, int& number) {
    text = SkipSpace(text);
    if (!IsDigit(*text)) {
        return nullptr;
    }
    int value = 0;
    for (int digits = 0; digits < range.digits && IsDigit(*text); ++digits, ++text) {
        value = value * 10 + (*text - '0');
    }
    if (value < range.low || value > range.high) {
        return nullptr;
    }
    number = value;
    return text;
}

// A number that the field stores minus `base`.
const char* ReadNumber(const char* text, const Range& range, int base, int& field) {
    int number = 0;
    const char* const end = ReadNumber(text, range, number);
    if (end != nullptr) {
        field = number - base;
    }
    return end;
}

const char* ReadYearInCentury(const char* text, int& year) {
    int number = 0;
    const char* const end = ReadNumber(text, {0, 99, 2}, number);
    if (end != nullptr) {
        year = number <= 68 ? number + 100 : number;
    }
    return end;
}

const char* ReadHalfOfDay(const char* text, int& hour) {
    const char* const after_am = MatchWord(text, "AM");
    const char* const after_pm = MatchWord(text, "PM");
    if ((after_am == nullptr && after_pm == nullptr) || hour > 12) {
        return nullptr;
    }
    if (after_pm != nullptr && hour != 12) {
        hour += 12;
    }
    if (after_am != nullptr && hour == 12) {
        hour = 0;
    }
    return after_am != nullptr ? after_am : after_pm;
}

const char* Convert(char conversion, const char* text, std::tm& fields) {
    switch (conversion) {
        case '%':
            return *text == '%' ? text + 1 : nullptr;
        case 'a':
        case 'A':
            return ReadName(text, kWeekdays, kShortWeekdays, fields.tm_wday);
        case 'b':
        case 'B':
        case 'h':
            return ReadName(text, kMonths, kShortMonths, fields.tm_mon);
        case 'C':
            return StrPTime(text, "%A, %B, %e, %Y", fields);
        case 'c':
            return StrPTime(text, "%x %X", fields);
        case 'D':
        case 'x':
            return StrPTime(text, "%m/%d/%y", fields);
        case 'R':
            return StrPTime(text, "%H:%M", fields);
        case 'T':
        case 'X':
            return StrPTime(text, "%H:%M:%S", fields);
        case 'r':
            return StrPTime(text, "%I:%M:%S %p", fields);
        case 'd':
        case 'e':
            return ReadNumber(text, {1, 31, 2}, 0, fields.tm_mday);
        case 'H':
        case 'k':
            return ReadNumber(text, {0, 23, 2}, 0, fields.tm_hour);
        case 'I':
        case 'l':
            return ReadNumber(text, {1, 12, 2}, 0, fields.tm_hour);
        case 'j':
            return ReadNumber(text, {1, 366, 3}, 1, fields.tm_yday);
        case 'm':
            return ReadNumber(text, {1, 12, 2}, 1, fields.tm_mon);
        case 'M':
            return ReadNumber(text, {0, 59, 2}, 0, fields.tm_min);
        case 'S':
            return ReadNumber(text, {0, 60, 2}, 0, fields.tm_sec);
        case 'p':
            return ReadHalfOfDay(text, fields.tm_hour);
        case 'y':
            return ReadYearInCentury(text, fields.tm_year);
        case 'Y':
            // An earlier year would be a negative field, which counts as a failure.
            return ReadNumber(text, {1900, 9999, 4}, 1900, fields.tm_year);
        default:
            return nullptr;
    }
}

}  // namespace

const char* StrPTime(const char* text, const char* format, std::tm& fields) {
    for (; *format != '\0'; ++format) {
        if (IsSpace(*format)) {
            text = SkipSpace(text);
        } else if (*format == '%') {
            ++format;
            text = Convert(*format, text, fields);
        } else {
            text = *text == *format ? text + 1 : nullptr;
        }
        // Checked before the loop advances: a format that ends in "%" is at its terminating zero, which
        // fails.
        if (text == nullptr) {
            return nullptr;
        }
    }
    return text;
}

}  // namespace zumod
