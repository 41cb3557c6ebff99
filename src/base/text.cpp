#include "src/base/text.h"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace zumod {
namespace {

template <class Text>
void Replace(Text& text, const Text& from, const Text& to) {
    for (std::size_t at = text.find(from, 0); at != Text::npos; at = text.find(from, 0)) {
        text.replace(at, from.size(), to);
    }
}

// The functions of <cctype> expect 0 to 255, and char may be signed.
int CodeOf(char c) {
    return static_cast<unsigned char>(c);
}

std::int32_t PieceValue(const std::string& piece) {
    return static_cast<std::int32_t>(std::strtol(piece.c_str(), nullptr, 10));
}

}  // namespace

void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
    Replace(text, from, to);
}

void ReplaceAll(std::wstring& text, const std::wstring& from, const std::wstring& to) {
    Replace(text, from, to);
}

void Trim(std::string& text) {
    const auto is_space = [](int code) { return std::isspace(code); };
    TrimRight(text, is_space);
    TrimLeft(text, is_space);
}

int IsCLocaleSpace(int code) {
    return (code >= 9 && code <= 13) || code == 32 ? 1 : 0;
}

void TrimLeft(std::string& text, const CharPredicate& predicate) {
    std::size_t count = 0;
    while (count < text.size() && predicate(CodeOf(text[count])) != 0) {
        ++count;
    }
    text.erase(0, count);
}

void TrimRight(std::string& text, const CharPredicate& predicate) {
    std::size_t size = text.size();
    while (size > 0 && predicate(CodeOf(text[size - 1])) != 0) {
        --size;
    }
    text.erase(size);
}

void TrimBlanks(std::string& text) {
    const auto is_blank = [](int code) { return code == ' ' ? 1 : 0; };
    TrimRight(text, is_blank);
    TrimLeft(text, is_blank);
}

std::string ToLower(const std::string& text) {
    std::string lower = text;
    for (char& c : lower) {
        c = static_cast<char>(std::tolower(CodeOf(c)));
    }
    return lower;
}

std::string ToUpper(const std::string& text) {
    std::string upper = text;
    for (char& c : upper) {
        c = static_cast<char>(std::toupper(CodeOf(c)));
    }
    return upper;
}

std::string IntToString(int n) {
    char text[65];
    std::snprintf(text, sizeof text, "%d", n);
    return text;
}

std::string LongToString(long n) {
    char text[65];
    std::snprintf(text, sizeof text, "%ld", n);
    return text;
}

std::string ULongToString(unsigned long n) {
    char text[65];
    std::snprintf(text, sizeof text, "%lu", n);
    return text;
}

long StrToLong(const char* text, long fallback) {
    return text == nullptr ? fallback : std::strtol(text, nullptr, 10);
}

void Split(const std::string& text, const std::string& delimiters, std::vector<std::string>& parts,
           std::size_t limit) {
    std::size_t position = 0;
    for (std::size_t counter = 1;; ++counter) {
        const std::size_t delimiter = text.find_first_of(delimiters, position);
        if (delimiter == position) {
            parts.emplace_back();
            ++position;
            continue;
        }
        if (delimiter == std::string::npos || (limit != 0 && counter - 1 == limit)) {
            break;
        }
        parts.push_back(text.substr(position, delimiter - position));
        position = delimiter + 1;
    }
    // The position is at most at the end of the text.
    parts.push_back(text.substr(position));
}

int CompareVersion(const std::string& a, const std::string& b, const std::string& delimiters) {
    std::vector<std::string> a_pieces;
    std::vector<std::string> b_pieces;
    Split(a, delimiters, a_pieces);
    Split(b, delimiters, b_pieces);
    for (std::size_t i = 0; i < a_pieces.size(); ++i) {
        const std::int32_t a_value = PieceValue(a_pieces[i]);
        const std::int32_t b_value = i < b_pieces.size() ? PieceValue(b_pieces[i]) : 0;
        if (a_value != b_value) {
            const int position = static_cast<int>(i) + 1;
            return a_value > b_value ? position : -position;
        }
    }
    if (a_pieces.size() == b_pieces.size()) {
        return 0;
    }
    return b_pieces.size() > a_pieces.size() ? -100 : 100;
}

}  // namespace zumod
