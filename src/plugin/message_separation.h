// Matches a complete message to a handler by the type bytes of its headers, with a table that the derived
// class supplies.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zumod {

// Header: the header record. Context: what every handler is given beside the body. MaxKeys: how many headers
// may stand one after the other in a message, each with a type byte. Length: the type of a body's length.
// Result: the type of a handler's result.
//
// Binary table: slots 0 and 1 the destructor pair, 2 GetDispatchTable, 3 CallEntry, 4 OnMessage.
template <class Header, class Context, uint64_t MaxKeys, class Length, class Result>
class CMessageSeparation_T {
public:
    using Handler = Result (CMessageSeparation_T::*)(const uint8_t* body, Length length, Context context);

    // A table ends at the first entry whose handler is empty.
    struct Entry {
        uint8_t keys[8];     // the type bytes, outermost header first
        uint64_t key_count;  // how many of them count: 1 to MaxKeys
        Handler handler;
    };
    static_assert(sizeof(Entry) == 32);

    CMessageSeparation_T() = default;
    CMessageSeparation_T(const CMessageSeparation_T&) = delete;
    CMessageSeparation_T& operator=(const CMessageSeparation_T&) = delete;
    virtual ~CMessageSeparation_T() = default;

    // Returns the first entry and stores how far apart entries stand; null for no table.
    virtual const Entry* GetDispatchTable(uint64_t* /*entry_size*/) { return nullptr; }

    virtual Result CallEntry(uint64_t /*index*/, const uint8_t* /*body*/, Length /*length*/,
                             Context /*context*/) {
        return Result{};
    }

    // Calls the first entry whose keys match; false when there is none, or when the message is shorter than
    // its innermost header claims.
    virtual Result OnMessage(const uint8_t* data, Length size, Context context) {
        if (data == nullptr || size < sizeof(Header)) {
            return Result{};
        }
        uint64_t entry_size = 0;
        const Entry* first = GetDispatchTable(&entry_size);
        if (first == nullptr) {
            return Result{};
        }
        for (uint64_t index = 0;; ++index) {
            const Entry& entry = EntryAt(first, entry_size, index);
            if (entry.handler == nullptr || entry.key_count < 1 || entry.key_count > MaxKeys) {
                return Result{};
            }
            if (!Matches(entry, data, size)) {
                continue;
            }
            const uint64_t body_offset = sizeof(Header) * entry.key_count;
            const Length body_length = HeaderAt(data, entry.key_count - 1).length;
            if (size < body_offset + body_length) {
                return Result{};
            }
            return CallEntry(index, data + body_offset, body_length, context);
        }
    }

private:
    static const Entry& EntryAt(const Entry* first, uint64_t entry_size, uint64_t index) {
        return *reinterpret_cast<const Entry*>(reinterpret_cast<const char*>(first) + index * entry_size);
    }

    static Header HeaderAt(const uint8_t* data, uint64_t level) {
        Header header;
        std::memcpy(&header, data + sizeof(Header) * level, sizeof header);
        return header;
    }

    static bool Matches(const Entry& entry, const uint8_t* data, Length size) {
        for (uint64_t level = 0; level < entry.key_count; ++level) {
            if (size < sizeof(Header) * (level + 1) || HeaderAt(data, level).type != entry.keys[level]) {
                return false;
            }
        }
        return true;
    }
};

}  // namespace zumod
