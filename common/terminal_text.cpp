#include "common/terminal_text.h"

#include <sys/ioctl.h>
#include <utf8.h>

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <cwchar>

namespace zumod {
namespace {

// wcwidth() depends on the locale, which these programs leave at "C".
class Utf8Locale {
public:
    Utf8Locale() : m_former(Locale() != nullptr ? uselocale(Locale()) : nullptr) {}
    ~Utf8Locale() {
        if (m_former != nullptr) {
            uselocale(m_former);
        }
    }
    Utf8Locale(const Utf8Locale&) = delete;
    Utf8Locale& operator=(const Utf8Locale&) = delete;

    // Without the locale, or for a character that it does not know, a character takes one column.
    size_t Width(uint32_t code) const {
        const int width = m_former != nullptr ? wcwidth(static_cast<wchar_t>(code)) : 1;
        return width < 0 ? 1 : static_cast<size_t>(width);
    }

private:
    static locale_t Locale() {
        static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        return locale;
    }

    const locale_t m_former;
};

// How many bytes of the text fit into the columns.
size_t FittingBytes(std::string_view text, size_t columns, size_t& width) {
    const Utf8Locale locale;
    size_t at = 0;
    width = 0;
    while (at < text.size()) {
        const auto* const begin = text.begin() + at;
        const auto* next = begin;
        size_t character = 1;
        // The longest character has four bytes.
        if (utf8::find_invalid(begin, begin + std::min<size_t>(4, text.size() - at)) != begin) {
            character = locale.Width(utf8::unchecked::next(next));
        } else {
            ++next;
        }
        if (width + character > columns) {
            break;
        }
        width += character;
        at += static_cast<size_t>(next - begin);
    }
    return at;
}

}  // namespace

std::optional<size_t> TerminalColumns(int descriptor) {
    winsize size{};
    const bool known = ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? std::optional<size_t>(size.ws_col) : std::nullopt;
}

size_t DisplayWidth(std::string_view text) {
    size_t width = 0;
    FittingBytes(text, SIZE_MAX, width);
    return width;
}

std::string Shortened(std::string_view text, size_t columns) {
    size_t width = 0;
    if (FittingBytes(text, columns, width) == text.size()) {
        return std::string(text);
    }
    if (columns == 0) {
        return {};
    }
    std::string shortened(text.substr(0, FittingBytes(text, columns - 1, width)));
    shortened += "\u2026";
    return shortened;
}

}  // namespace zumod
