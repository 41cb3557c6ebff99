// The segment index of an MP4 file ("sidx" box), of a size that is fixed before the recording starts.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zumod::peer {

class SidxBox {
public:
    static constexpr size_t kMostEntries = 600;
    // A box of no entry, one entry, and the box that fills the rest.
    static constexpr size_t kHeaderSize = 40;
    static constexpr size_t kEntrySize = 12;
    static constexpr size_t kReservedSize = kHeaderSize + kMostEntries * kEntrySize + 8;

    // A part of the file right behind the one before. One that does not start with a key frame belongs to
    // the entry before it.
    void Add(uint64_t bytes, uint64_t duration, bool starts_with_key);

    // kReservedSize bytes: a box of this type that can be skipped.
    static std::vector<uint8_t> Placeholder();
    // kReservedSize bytes: the index and behind it a box that can be skipped. The parts start right behind.
    // Empty if there is no part, or if one is too large for the format.
    std::vector<uint8_t> Bytes(uint32_t timescale) const;

private:
    struct Entry {
        uint64_t bytes;
        uint64_t duration;
    };
    std::vector<Entry> m_entries;
    size_t m_parts_in_entry = 1;  // key frames that one entry counts for; doubled when the index is full
    size_t m_parts_in_last = 0;
};

}  // namespace zumod::peer
