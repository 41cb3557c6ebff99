// The parts of a 64-bit ELF file that tests look at.
//
// Thread rule: immutable; any thread.
#pragma once

#include <elf.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace zumod::testing {

class ElfFile {
public:
    struct Symbol {
        std::string name;
        unsigned char binding;
        unsigned char type;
        bool defined;
        uint64_t value;
    };

    explicit ElfFile(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        m_bytes.resize(std::filesystem::file_size(path));
        in.read(m_bytes.data(), static_cast<std::streamsize>(m_bytes.size()));
        if (m_bytes.size() < sizeof(Elf64_Ehdr) || std::memcmp(m_bytes.data(), ELFMAG, SELFMAG) != 0) {
            throw std::runtime_error(path + " is not an ELF file");
        }
        const auto header = At<Elf64_Ehdr>(0);
        m_type = header.e_type;
        for (uint64_t i = 0; i < header.e_shnum; ++i) {
            m_sections.push_back(At<Elf64_Shdr>(header.e_shoff + i * header.e_shentsize));
        }
        for (uint64_t i = 0; i < header.e_phnum; ++i) {
            m_segments.push_back(At<Elf64_Phdr>(header.e_phoff + i * header.e_phentsize));
        }
    }

    // ET_DYN or another of its kind.
    unsigned Type() const { return m_type; }

    // The symbols of SHT_DYNSYM or SHT_SYMTAB; empty if the file has no such table.
    std::vector<Symbol> Symbols(uint32_t table) const {
        std::vector<Symbol> symbols;
        for (const Elf64_Shdr& section : m_sections) {
            if (section.sh_type != table) {
                continue;
            }
            for (uint64_t at = sizeof(Elf64_Sym); at < section.sh_size; at += sizeof(Elf64_Sym)) {
                const auto symbol = At<Elf64_Sym>(section.sh_offset + at);
                symbols.push_back({Text(m_sections.at(section.sh_link), symbol.st_name),
                                   static_cast<unsigned char>(ELF64_ST_BIND(symbol.st_info)),
                                   static_cast<unsigned char>(ELF64_ST_TYPE(symbol.st_info)),
                                   symbol.st_shndx != SHN_UNDEF, symbol.st_value});
            }
        }
        return symbols;
    }

    std::optional<uint64_t> Dynamic(int64_t tag) const {
        for (const auto& entry : DynamicEntries()) {
            if (entry.d_tag == tag) {
                return entry.d_un.d_val;
            }
        }
        return std::nullopt;
    }

    std::vector<std::string> Needed() const {
        std::vector<std::string> names;
        for (const auto& entry : DynamicEntries()) {
            if (entry.d_tag == DT_NEEDED) {
                names.push_back(Text(m_sections.at(SectionOf(SHT_DYNAMIC)->sh_link), entry.d_un.d_val));
            }
        }
        return names;
    }

    std::optional<Elf64_Phdr> Segment(uint32_t type) const {
        for (const Elf64_Phdr& segment : m_segments) {
            if (segment.p_type == type) {
                return segment;
            }
        }
        return std::nullopt;
    }

    const std::vector<Elf64_Phdr>& Segments() const { return m_segments; }

    // The control-flow features that the file declares, GNU_PROPERTY_X86_FEATURE_1_IBT and _SHSTK; 0 for
    // none.
    uint32_t ControlFlowFeatures() const {
        for (const Elf64_Shdr& section : m_sections) {
            if (section.sh_type != SHT_NOTE) {
                continue;
            }
            const auto note = At<Elf64_Nhdr>(section.sh_offset);
            if (note.n_type != NT_GNU_PROPERTY_TYPE_0) {
                continue;
            }
            const uint64_t begin = section.sh_offset + sizeof note + 4;  // after the name "GNU"
            for (uint64_t at = begin; at + 8 <= begin + note.n_descsz;) {
                const auto type = At<uint32_t>(at);
                const auto size = At<uint32_t>(at + 4);
                if (type == GNU_PROPERTY_X86_FEATURE_1_AND) {
                    return At<uint32_t>(at + 8);
                }
                at += 8 + (size + 7) / 8 * 8;
            }
        }
        return 0;
    }

    // The bytes that are loaded at this address.
    std::string BytesAt(uint64_t address, size_t size) const {
        for (const Elf64_Phdr& segment : m_segments) {
            if (segment.p_type == PT_LOAD && address >= segment.p_vaddr &&
                address + size <= segment.p_vaddr + segment.p_filesz) {
                return {m_bytes.data() + segment.p_offset + (address - segment.p_vaddr), size};
            }
        }
        throw std::runtime_error("no such address in the file");
    }

private:
    template <class Record>
    Record At(uint64_t offset) const {
        if (offset + sizeof(Record) > m_bytes.size()) {
            throw std::runtime_error("cut ELF file");
        }
        Record record;
        std::memcpy(&record, m_bytes.data() + offset, sizeof record);
        return record;
    }
    std::string Text(const Elf64_Shdr& strings, uint64_t at) const {
        return {m_bytes.data() + strings.sh_offset + at};
    }
    const Elf64_Shdr* SectionOf(uint32_t type) const {
        for (const Elf64_Shdr& section : m_sections) {
            if (section.sh_type == type) {
                return &section;
            }
        }
        return nullptr;
    }
    std::vector<Elf64_Dyn> DynamicEntries() const {
        std::vector<Elf64_Dyn> entries;
        if (const Elf64_Shdr* section = SectionOf(SHT_DYNAMIC)) {
            for (uint64_t at = 0; at < section->sh_size; at += sizeof(Elf64_Dyn)) {
                entries.push_back(At<Elf64_Dyn>(section->sh_offset + at));
            }
        }
        return entries;
    }

    unsigned m_type = 0;
    std::vector<char> m_bytes;
    std::vector<Elf64_Shdr> m_sections;
    std::vector<Elf64_Phdr> m_segments;
};

}  // namespace zumod::testing
