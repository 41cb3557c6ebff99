// Text between wide characters (32-bit), UTF-8 and the locale's multi-byte encoding. Free functions without
// state, safe from any thread; those that say so read the process locale. A text ends at its first zero.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace zumod {

std::string WideToUtf8(const std::wstring& text);

// By the current locale. At most as many bytes are written as `text` has wide characters, so a text that
// needs more is cut at the last whole character that fits; kept as it is. Empty when a character has no form
// there.
std::string WideToMultiByte(const std::wstring& text);

// Text that passes IsUtf8 is decoded as such; any other is read by the current locale, and gives an empty
// text where that fails.
std::wstring MultiByteToWide(const std::string& text);

// The scheme of RFC 2279: one to six bytes for up to 31 bits (a 32nd is dropped). Surrogates are code points
// like any other. `out` receives the bytes and a terminating zero, `outLength` the number of bytes without
// it. 1; or 0 for a null `wide`, with both left as they were.
int EncodeUtf8(const wchar_t* wide, std::unique_ptr<char[]>& out, std::size_t& outLength);

// The inverse. The lead byte alone decides how many bytes a code point takes; the others give their low six
// bits whatever they are. Where the terminating zero cuts a sequence short, it ends there and the missing
// bits are 0. `out` receives the code points and a terminating zero, `outLength` their number without it. 1;
// or 0 for a null `bytes`, with both left as they were.
int DecodeUtf8(const char* bytes, std::unique_ptr<wchar_t[]>& out, std::size_t& outLength);

// Whether every sequence is a lead byte of RFC 2279 (0xFE and 0xFF are none) and as many continuation bytes
// as it asks for. Overlong forms pass. An empty text is valid, null is not.
bool IsUtf8(const char* bytes);

// Whether every byte from 0x80 on is a lead byte 0x81 to 0xFE followed by a trail byte 0x40 to 0xFE. An empty
// text is valid, null is not.
bool IsGbk(const char* bytes);

}  // namespace zumod
