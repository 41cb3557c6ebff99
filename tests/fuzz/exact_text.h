// A text in memory of exactly its size, so that the address sanitizer detects a read past the terminating
// zero.
//
// Thread rule: a plain value.
#pragma once

#include <cstring>
#include <memory>
#include <string>

namespace zumod::testing {

class ExactText {
public:
    // Up to the first zero of `text`.
    explicit ExactText(const std::string& text)
        : m_size(std::strlen(text.c_str())), m_text(std::make_unique<char[]>(m_size + 1)) {
        std::memcpy(m_text.get(), text.c_str(), m_size + 1);
    }

    const char* Get() const { return m_text.get(); }
    std::size_t Size() const { return m_size; }

private:
    std::size_t m_size;
    std::unique_ptr<char[]> m_text;
};

}  // namespace zumod::testing
