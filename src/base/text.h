// Small operations on texts, version texts and numbers as text.
//
// Thread rule: [any thread]; free functions without state. Trim, ToLower and ToUpper read the process locale.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace zumod {

// Replaces the first `from` by `to` and searches again from the start of the text, until none is left, so
// that an occurrence that a replacement creates is replaced as well. Required by the contract: it does not
// return if `to` contains `from` or `from` is empty.
void ReplaceAll(std::string& text, const std::string& from, const std::string& to);
void ReplaceAll(std::wstring& text, const std::wstring& from, const std::wstring& to);

// Erases white space at both ends, as isspace defines it in the current locale.
void Trim(std::string& text);

// Called with the code of a byte, 0 to 255; any result but 0 means true.
using CharPredicate = std::function<int(int)>;

// White space of the C locale, in any current locale: code 9 to 13 or 32.
int IsCLocaleSpace(int code);

// Erase the characters at one end for which the predicate holds.
void TrimLeft(std::string& text, const CharPredicate& predicate = IsCLocaleSpace);
void TrimRight(std::string& text, const CharPredicate& predicate = IsCLocaleSpace);

// Erases blanks (code 32) at both ends and nothing else.
void TrimBlanks(std::string& text);

// Copies with tolower or toupper of the current locale on each byte.
std::string ToLower(const std::string& text);
std::string ToUpper(const std::string& text);

std::string IntToString(int n);
std::string LongToString(long n);
std::string ULongToString(unsigned long n);

// The result of strtol in base 10: 0 if `text` does not start with a number. `fallback` only for a null text.
long StrToLong(const char* text, long fallback);

// Appends to `parts` the pieces of `text` between any of the characters in `delimiters`. The rest after the
// last delimiter is always a piece, even if it is empty. A `limit` other than 0 stops after that many pieces
// and appends the rest undivided. Required by the contract: an empty piece counts but does not stop the
// division, so empty pieces can take the count past the limit, and then the whole text is divided.
void Split(const std::string& text, const std::string& delimiters, std::vector<std::string>& parts,
           std::size_t limit = 0);

// Compares two version texts piece by piece as 32-bit numbers (wider numbers lose their upper bits). A piece
// that only `a` has is compared with 0. If the pieces first differ at piece i, counted from 1, returns i if
// `a` is larger, -i if it is smaller. If none differs, returns -100 if `b` has more pieces, 100 if it has
// fewer, else 0: a trailing zero piece counts, as the contract requires.
int CompareVersion(const std::string& a, const std::string& b, const std::string& delimiters);

}  // namespace zumod
