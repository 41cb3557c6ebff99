// The module's own tagged value.
//
// Thread rule: AddRef and Release are [any thread]; the content is fixed at construction.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "zumod/mod_data.h"
#include "zumod/ref_ptr.h"
#include "zumod/reference.h"

namespace zumod {

class CZUModData final : public IZUModData, private CReference {
public:
    // An integer value without bytes: it reads as 0.
    CZUModData() = default;
    // A value of any kind but object, with a copy of `size` bytes.
    CZUModData(uint32_t tag, const void* bytes, size_t size);
    // An object value; adds a reference to `object`, which may be null.
    explicit CZUModData(IReference* object);

    // The values that creation policies and properties are made of, each with one reference for the caller.
    static CRefPtr_T<IZUModData> FromBool(bool value);
    static CRefPtr_T<IZUModData> FromInt64(int64_t value);
    // A null text is an empty one.
    static CRefPtr_T<IZUModData> FromText(const char* text);
    static CRefPtr_T<IZUModData> FromPointer(uint64_t value);

    uint64_t AddRef() override { return CReference::AddRef(); }
    int64_t Release() override { return CReference::Release(); }

    uint32_t GetType() override { return m_tag; }
    const void* GetData() override { return m_bytes.empty() ? nullptr : m_bytes.data(); }
    uint64_t GetSize() override { return m_bytes.size(); }
    const char* GetString() override;
    const void* GetBlock() override;
    bool GetBool() override { return Read<uint8_t>(kZUModDataBool) != 0; }
    int64_t GetInt64() override { return Read<int64_t>(kZUModDataInt64); }
    float GetFloat() override { return Read<float>(kZUModDataFloat); }
    IReference* GetObject() override;
    IZUModData* Clone() override;
    uint64_t GetPointer() override { return Read<uint64_t>(kZUModDataPointer); }

private:
    // 0 unless the value is of this kind and has the bytes for it.
    template <class Number>
    Number Read(ZUModDataType kind) const {
        Number number{};
        if (m_tag == kind && m_bytes.size() >= sizeof number) {
            std::memcpy(&number, m_bytes.data(), sizeof number);
        }
        return number;
    }

    uint32_t m_tag = kZUModDataInt64;
    std::vector<uint8_t> m_bytes;
    CRefPtr_T<IReference> m_object;
};

static_assert(sizeof(CZUModData) == sizeof(IZUModData) + sizeof(CReference) + 8 + 24 + 8);

}  // namespace zumod
