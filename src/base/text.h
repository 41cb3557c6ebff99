// Small operations on texts, version texts and numbers as text. Free functions without state, safe from any
// thread; Trim, ToLower and ToUpper read the process locale.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace zumod {

// Replaces the first `from` by `to`, from the start of the text again each time, until none is left: what a
// replacement joins together is replaced as well. A `to` that contains `from`, and an empty `from`, never
// end; kept as it is.
void ReplaceAll(std::string& text, const std::string& from, const std::string& to);
void ReplaceAll(std::wstring& text, const std::wstring& from, const std::wstring& to);

// Erases what isspace calls white space in the current locale at both ends.
void Trim(std::string& text);

// Takes the code of a byte, 0 to 255; anything but 0 is yes.
using CharPredicate = std::function<int(int)>;

// White space of the C locale, whatever the current one: code 9 to 13 or 32.
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

// What strtol reads at the start of `text` in base 10, 0 if that is no number; `fallback` only for a null
// text.
long StrToLong(const char* text, long fallback);

// Appends to `parts` the pieces of `text` between any of the characters in `delimiters`; the rest after the
// last delimiter is always a piece, even an empty one. A `limit` other than 0 ends it after that many pieces,
// the rest uncut. An empty piece counts but is never the one that ends it, so that empty pieces can carry the
// count past the limit and everything is cut; kept as it is.
void Split(const std::string& text, const std::string& delimiters, std::vector<std::string>& parts,
           std::size_t limit = 0);

// Compares two version texts piece by piece as 32-bit numbers (wider ones lose their upper bits), a piece
// that only `a` has with 0. The first difference, at piece i counted from 1, gives i when `a` is larger and
// -i when it is smaller. Without one: -100 if `b` has more pieces, 100 if it has fewer, 0 if as many: a
// trailing zero piece counts, deliberately.
int CompareVersion(const std::string& a, const std::string& b, const std::string& delimiters);

}  // namespace zumod
