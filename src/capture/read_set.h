// A select() set for one descriptor of any number. A host may have more open files than an fd_set has bits;
// select() accepts a bit array longer than fd_set.
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
        : m_descriptor(static_cast<size_t>(descriptor)),
          m_words(std::max(sizeof(fd_set) / sizeof(Word), m_descriptor / kWordBits + 1)) {}

    // Afterwards the set holds only the descriptor.
    void Reset() {
        std::fill(m_words.begin(), m_words.end(), Word{0});
        m_words[m_descriptor / kWordBits] = Bit();
    }
    bool HoldsDescriptor() const { return (m_words[m_descriptor / kWordBits] & Bit()) != 0; }
    // Only for passing to select(); never dereferenced as an fd_set.
    fd_set* Get() { return reinterpret_cast<fd_set*>(m_words.data()); }

private:
    using Word = unsigned long;
    static constexpr size_t kWordBits = 8 * sizeof(Word);
    static_assert(sizeof(fd_mask) == sizeof(Word) && alignof(fd_set) <= alignof(Word),
                  "the kernel reads the set as an array of unsigned long");

    Word Bit() const { return Word{1} << (m_descriptor % kWordBits); }

    size_t m_descriptor;
    std::vector<Word> m_words;
};

}  // namespace zumod
