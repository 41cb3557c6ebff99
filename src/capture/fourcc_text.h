// A pixel format code as its four characters.
#pragma once

#include <cstdint>

namespace zumod {

// The bytes are passed as they are, also when they do not print.
class FourCcText {
public:
    explicit FourCcText(uint32_t code)
        : m_text{static_cast<char>(code & 0xFF), static_cast<char>(code >> 8 & 0xFF),
                 static_cast<char>(code >> 16 & 0xFF), static_cast<char>(code >> 24), '\0'} {}

    const char* Get() const { return m_text; }

private:
    char m_text[5];
};

}  // namespace zumod
