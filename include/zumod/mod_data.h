// The tagged, counted value in which a property, an environment setting or a creation parameter crosses a
// module boundary. zumod/values.h has a ready-made value.
//
// Thread rule: AddRef and Release are [any thread]; slots 4 to 14 are [any thread, one at a time] and do not
// change the value.
#pragma once

#include <cstdint>

#include "zumod/reference.h"

namespace zumod {

// The kinds of value. The number is the tag that GetType returns.
enum ZUModDataType : uint32_t {
    kZUModDataBool = 1,     // 1 byte, 0 or 1
    kZUModDataInt64 = 2,    // 8 bytes, native byte order
    kZUModDataFloat = 3,    // 4 bytes
    kZUModDataText = 4,     // the characters and a terminating NUL
    kZUModDataBlock = 5,    // any number of bytes
    kZUModDataPointer = 6,  // 8 bytes: a handle or an address
    kZUModDataObject = 7,   // no bytes: one reference to an IReference
};

// Binary table: slots 0 to 3 are IReference's; the order of the others is binding. A typed getter never
// fails: for a value of another kind, or one with too few bytes, it returns null, false, 0 or 0.0. Returned
// pointers are borrowed and valid as long as the caller's reference to the value; no getter adds a reference.
class IZUModData : public virtual IReference {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slot 4. The tag, one of ZUModDataType.
    virtual uint32_t GetType() = 0;
    // Slot 5. The stored bytes of any kind of value, or null when there are none.
    virtual const void* GetData() = 0;
    // Slot 6. The number of stored bytes.
    virtual uint64_t GetSize() = 0;
    // Slot 7. The NUL-terminated text of a text value.
    virtual const char* GetString() = 0;
    // Slot 8. The bytes of a block value; GetSize returns their number.
    virtual const void* GetBlock() = 0;
    // Slot 9. A boolean value: whether its first byte is not 0.
    virtual bool GetBool() = 0;
    // Slot 10. The number of an integer value.
    virtual int64_t GetInt64() = 0;
    // Slot 11. The number of a float value.
    virtual float GetFloat() = 0;
    // Slot 12. The object of an object value, borrowed.
    virtual IReference* GetObject() = 0;
    // Slot 13. A new value with the same content and a count of 0: the caller adds the first reference. Bytes
    // are copied; an object is shared, with one more reference to it.
    virtual IZUModData* Clone() = 0;
    // Slot 14. The handle or address of a pointer value. Required by the contract: it follows Clone, not
    // GetInt64.
    virtual uint64_t GetPointer() = 0;
};

static_assert(sizeof(IZUModData) == sizeof(void*), "IReference must be the primary base");

}  // namespace zumod
