// The set of one descriptor to wait for, whatever its number: a host may have more files open than an fd_set
// has bits, and the system takes a larger set as gladly.
//
// Thread rule: one thread at a time.
#pragma once

#include <sys/select.h>

#include <algorithm>
#include <cstddef>
#include <vector>

namespace zumod {

class ReadSet {
public:
    explicit ReadSet(int descriptor)
        : m_place(static_cast<size_t>(descriptor)),
          m_words(std::max(sizeof(fd_set) / sizeof(Word), m_place / kWordBits + 1)) {}

    // Holds the descriptor and nothing else afterwards.
    void Reset() {
        std::fill(m_words.begin(), m_words.end(), Word{0});
        m_words[m_place / kWordBits] = Bit();
    }
    bool HoldsDescriptor() const { return (m_words[m_place / kWordBits] & Bit()) != 0; }
    // For a call to the system; never looked into through this type.
    fd_set* Get() { return reinterpret_cast<fd_set*>(m_words.data()); }

private:
    using Word = unsigned long;
    static constexpr size_t kWordBits = 8 * sizeof(Word);
    static_assert(sizeof(fd_mask) == sizeof(Word) && alignof(fd_set) <= alignof(Word),
                  "the system's own layout");

    Word Bit() const { return Word{1} << (m_place % kWordBits); }

    size_t m_place;
    std::vector<Word> m_words;
};

}  // namespace zumod
