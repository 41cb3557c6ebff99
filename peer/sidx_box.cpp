#include "peer/sidx_box.h"

#include <algorithm>
#include <limits>

namespace zumod::peer {
namespace {

constexpr uint64_t kLargestPart = 0x7FFFFFFF;
constexpr uint64_t kLongestPart = std::numeric_limits<uint32_t>::max();

void Put(std::vector<uint8_t>& bytes, uint64_t value, unsigned size) {
    for (unsigned i = size; i-- > 0;) {
        bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

// The size and the type of a box.
void PutBoxHeader(std::vector<uint8_t>& bytes, size_t size, const char (&type)[5]) {
    Put(bytes, size, 4);
    bytes.insert(bytes.end(), type, type + 4);
}

}  // namespace

void SidxBox::Add(uint64_t bytes, uint64_t duration, bool starts_with_key) {
    const bool full_entry = m_entries.empty() || m_parts_in_last == m_parts_in_entry;
    if (m_entries.empty() || (starts_with_key && full_entry)) {
        if (m_entries.size() == kMostEntries) {
            for (size_t i = 0; i < kMostEntries / 2; ++i) {
                const Entry& one = m_entries[2 * i];
                const Entry& other = m_entries[2 * i + 1];
                m_entries[i] = {one.bytes + other.bytes, one.duration + other.duration};
            }
            m_entries.resize(kMostEntries / 2);
            m_parts_in_entry *= 2;
        }
        m_entries.push_back({bytes, duration});
        m_parts_in_last = 1;
        return;
    }
    m_entries.back().bytes += bytes;
    m_entries.back().duration += duration;
    m_parts_in_last += starts_with_key ? 1 : 0;
}

std::vector<uint8_t> SidxBox::Placeholder() {
    std::vector<uint8_t> bytes;
    bytes.reserve(kReservedSize);
    PutBoxHeader(bytes, kReservedSize, "free");
    bytes.resize(kReservedSize);
    return bytes;
}

std::vector<uint8_t> SidxBox::Bytes(uint32_t timescale) const {
    const auto too_large = [](const Entry& entry) {
        return entry.bytes > kLargestPart || entry.duration > kLongestPart;
    };
    if (m_entries.empty() || std::ranges::any_of(m_entries, too_large)) {
        return {};
    }
    const size_t size = kHeaderSize + m_entries.size() * kEntrySize;
    std::vector<uint8_t> bytes;
    bytes.reserve(kReservedSize);
    PutBoxHeader(bytes, size, "sidx");
    Put(bytes, 1U << 24, 4);  // version 1, no flags
    Put(bytes, 1, 4);         // track
    Put(bytes, timescale, 4);
    Put(bytes, 0, 8);                     // the time of the first picture
    Put(bytes, kReservedSize - size, 8);  // from the end of this box to the first part
    Put(bytes, m_entries.size(), 4);      // above it 16 reserved bits
    for (const Entry& entry : m_entries) {
        Put(bytes, entry.bytes, 4);
        Put(bytes, entry.duration, 4);
        Put(bytes, 0x90000000, 4);  // starts with a key frame that needs no frame before it
    }
    PutBoxHeader(bytes, kReservedSize - size, "free");
    bytes.resize(kReservedSize);
    return bytes;
}

}  // namespace zumod::peer
