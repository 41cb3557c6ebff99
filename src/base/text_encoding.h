// Conversion of text between wide characters (32-bit), UTF-8 and the locale's multi-byte encoding. A text
// ends at its first zero.
//
// Thread rule: [any thread]; free functions without state. The multi-byte functions read the process locale.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace zumod {

std::string WideToUtf8(const std::wstring& text);

// Uses the current locale. Returns an empty text if the locale has no form for a character. Required by the
// contract: at most as many bytes are written as `text` has wide characters, so a text that needs more is cut
// after the last character that fits.
std::string WideToMultiByte(const std::wstring& text);

// Decodes text that passes IsUtf8 as UTF-8, and any other text by the current locale. Returns an empty text
// if that fails.
std::wstring MultiByteToWide(const std::string& text);

// Encodes as in RFC 2279: one to six bytes for up to 31 bits (a 32nd is dropped). Surrogates are encoded like
// other code points. `out` receives the bytes and a terminating zero, `outLength` the number of bytes without
// the zero. Returns 1, or 0 for a null `wide`, with both unchanged.
int EncodeUtf8(const wchar_t* wide, std::unique_ptr<char[]>& out, std::size_t& outLength);

// The inverse of EncodeUtf8. Only the lead byte determines the length of a sequence; any byte that follows
// contributes its low six bits. If the terminating zero cuts a sequence short, the sequence ends there and
// its missing bits are 0. `out` receives the code points and a terminating zero, `outLength` their number
// without the zero. Returns 1, or 0 for a null `bytes`, with both unchanged.
int DecodeUtf8(const char* bytes, std::unique_ptr<wchar_t[]>& out, std::size_t& outLength);

// Whether every sequence consists of a lead byte of RFC 2279 (0xFE and 0xFF are not lead bytes) and the
// number of continuation bytes that it requires. Overlong forms pass. An empty text is valid, null is not.
bool IsUtf8(const char* bytes);

// Whether every byte from 0x80 on is a lead byte 0x81 to 0xFE followed by a trail byte 0x40 to 0xFE. An empty
// text is valid, null is not.
bool IsGbk(const char* bytes);

}  // namespace zumod
