#include "validate/elf_image.h"

#include <cstring>
#include <fstream>
#include <iterator>

#include "validate/check.h"

namespace zumod::validate {
namespace {

// More symbols than any real module exports.
constexpr uint64_t kMostEntries = 1'000'000;

}  // namespace

template <class Record>
Record ElfImage::At(uint64_t offset) const {
    Expect(offset <= m_bytes.size() && m_bytes.size() - offset >= sizeof(Record), "a whole file",
           "the file ends before offset " + std::to_string(offset));
    Record record;
    std::memcpy(&record, m_bytes.data() + offset, sizeof record);
    return record;
}

std::string ElfImage::TextAt(uint64_t offset) const {
    Expect(offset < m_bytes.size(), "a whole file", "a name lies behind its end");
    const size_t end = m_bytes.find('\0', offset);
    Expect(end != std::string::npos, "names that end", "a name without an end");
    return m_bytes.substr(offset, end - offset);
}

ElfImage::ElfImage(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    m_bytes.assign(std::istreambuf_iterator<char>(in), {});
    const auto header = At<Elf64_Ehdr>(0);
    Expect(std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 && header.e_ident[EI_CLASS] == ELFCLASS64 &&
               header.e_type == ET_DYN,
           "a 64-bit shared object", "another file");
    for (uint64_t i = 0; i < header.e_shnum; ++i) {
        m_sections.push_back(At<Elf64_Shdr>(header.e_shoff + i * sizeof(Elf64_Shdr)));
    }
    for (uint64_t i = 0; i < header.e_phnum; ++i) {
        m_segments.push_back(At<Elf64_Phdr>(header.e_phoff + i * sizeof(Elf64_Phdr)));
    }
}

std::vector<ElfImage::Symbol> ElfImage::ExportedSymbols() const {
    std::vector<Symbol> symbols;
    for (const Elf64_Shdr& section : m_sections) {
        if (section.sh_type != SHT_DYNSYM) {
            continue;
        }
        Expect(section.sh_link < m_sections.size(), "a whole symbol table", "one without names");
        const uint64_t count = section.sh_size / sizeof(Elf64_Sym);
        Expect(count < kMostEntries, "a symbol table", std::to_string(count) + " symbols");
        for (uint64_t i = 1; i < count; ++i) {
            const auto symbol = At<Elf64_Sym>(section.sh_offset + i * sizeof(Elf64_Sym));
            // An absolute symbol is the name of a version.
            if (symbol.st_shndx != SHN_UNDEF && symbol.st_shndx != SHN_ABS) {
                symbols.push_back({TextAt(m_sections[section.sh_link].sh_offset + symbol.st_name),
                                   static_cast<unsigned char>(ELF64_ST_BIND(symbol.st_info))});
            }
        }
    }
    return symbols;
}

std::optional<uint64_t> ElfImage::Dynamic(int64_t tag) const {
    if (const auto segment = Segment(PT_DYNAMIC)) {
        for (uint64_t at = 0; at + sizeof(Elf64_Dyn) <= segment->p_filesz; at += sizeof(Elf64_Dyn)) {
            const auto entry = At<Elf64_Dyn>(segment->p_offset + at);
            if (entry.d_tag == DT_NULL) {
                break;
            }
            if (entry.d_tag == tag) {
                return entry.d_un.d_val;
            }
        }
    }
    return std::nullopt;
}

std::optional<Elf64_Phdr> ElfImage::Segment(uint32_t type) const {
    for (const Elf64_Phdr& segment : m_segments) {
        if (segment.p_type == type) {
            return segment;
        }
    }
    return std::nullopt;
}

}  // namespace zumod::validate
