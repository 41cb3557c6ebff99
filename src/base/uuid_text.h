// New identifiers as text.
//
// Thread rule: [any thread]; free functions without state.
#pragma once

#include <string>

namespace zumod {

// A new identifier from libuuid, formatted by UuidText.
std::string NewUuidString();

// Required by the contract, and not the usual text of a UUID: five groups of upper-case hexadecimal digits.
// The first group is bytes 0 to 7 as one little-endian number (16 digits, of which leading zeros beyond 8 are
// omitted). The second and third are bytes 8 to 9 and 10 to 11 as little-endian numbers. The fourth and fifth
// are bytes 12 to 15 and four bytes that are always 0.
std::string UuidText(const unsigned char (&bytes)[16]);

}  // namespace zumod
