// strcasecmp() as in a Turkish locale, where the small letter of "I" is another one than "i". It replaces the
// C library's in the program that includes this header, in one source file.
//
// Thread rule: [any thread].
#pragma once

#include <strings.h>

// NOLINTNEXTLINE(misc-definitions-in-headers): included in one source file of a program
extern "C" int strcasecmp(const char* one, const char* other) noexcept {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' && c != 'I' ? c - 'A' + 'a' : int{c}; };
    while (*one != '\0' && lower(*one) == lower(*other)) {
        ++one;
        ++other;
    }
    return lower(*one) - lower(*other);
}
