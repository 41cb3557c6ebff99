// New identifiers as text. Free functions without state, safe from any thread.
#pragma once

#include <string>

namespace zumod {

// A new identifier of libuuid, as UuidText writes it.
std::string NewUuidString();

// Not the usual text of a UUID: five groups of upper-case hex digits, of which the first is bytes 0 to 7 as
// one little-endian number (16 digits; leading zeros beyond 8 are left out), the second and third are bytes 8
// to 9 and 10 to 11 as little-endian numbers, the fourth and fifth bytes 12 to 15 and four bytes that are
// always 0.
std::string UuidText(const unsigned char (&bytes)[16]);

}  // namespace zumod
