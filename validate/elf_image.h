// The parts of a shared object's file that checks look at. The file is hostile: every offset is checked.
//
// Thread rule: immutable; any thread.
#pragma once

#include <elf.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zumod::validate {

class ElfImage {
public:
    struct Symbol {
        std::string name;
        unsigned char binding;
    };

    // Throws Finding if the file is not a 64-bit shared object or is cut.
    explicit ElfImage(const std::string& path);

    // The symbols that the file defines for other objects.
    std::vector<Symbol> ExportedSymbols() const;

    // The value of an entry of the dynamic section.
    std::optional<uint64_t> Dynamic(int64_t tag) const;

    // The first segment of this type.
    std::optional<Elf64_Phdr> Segment(uint32_t type) const;

private:
    template <class Record>
    Record At(uint64_t offset) const;
    std::string TextAt(uint64_t offset) const;

    std::string m_bytes;
    std::vector<Elf64_Shdr> m_sections;
    std::vector<Elf64_Phdr> m_segments;
};

}  // namespace zumod::validate
