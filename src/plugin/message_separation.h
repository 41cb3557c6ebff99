// Dispatch of a complete message to a handler by the type bytes of its headers, with a table that the derived
// class supplies.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zumod {

// Header: the header record. Context: an argument for every handler beside the body. kMaxKeys: the largest
// number of consecutive headers in a message, each with a type byte. Length: the type of a body length.
// Result: the type of a handler's result.
//
// Slots: destructor pair 0 and 1, GetDispatchTable 2, CallEntry 3, OnMessage 4.
template <class Header, class Context, uint64_t kMaxKeys, class Length, class Result>
class CMessageSeparation_T {
public:
    using Handler = Result (CMessageSeparation_T::*)(const uint8_t* body, Length length, Context context);

    // The first entry with a null handler ends the table.
    struct Entry {
        uint8_t keys[8];     // the type bytes, outermost header first
        uint64_t key_count;  // number of keys used, 1 to kMaxKeys
        Handler handler;
    };
    static_assert(sizeof(Entry) == 32);

    CMessageSeparation_T() = default;
    CMessageSeparation_T(const CMessageSeparation_T&) = delete;
    CMessageSeparation_T& operator=(const CMessageSeparation_T&) = delete;
    virtual ~CMessageSeparation_T() = default;

    // Returns the first entry and stores the distance between entries in bytes; null for no table.
    virtual const Entry* GetDispatchTable(uint64_t* /*entry_size*/) { return nullptr; }

    virtual Result CallEntry(uint64_t /*index*/, const uint8_t* /*body*/, Length /*length*/,
                             Context /*context*/) {
        return Result{};
    }

    // Calls the first entry whose keys match. Returns Result{} if no entry matches or the message is shorter
    // than its innermost header states.
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
            if (entry.handler == nullptr || entry.key_count < 1 || entry.key_count > kMaxKeys) {
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
