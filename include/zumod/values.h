// Ready-made values for a host or a module, and readers that check the kind of a value from elsewhere.
//
// Thread rule: AddRef and Release of a value are [any thread]; its content is fixed at construction. The
// readers belong to the thread that reads the value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zumod/mod_data.h"
#include "zumod/ref_ptr.h"
#include "zumod/reference.h"

namespace zumod {

// Required by the contract: the bases contain IReference twice, which GCC warns about.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winaccessible-base"

class CZUModData final : public IZUModData, private CReference {
public:
    // An integer value without bytes: it reads as 0.
    CZUModData() = default;
    // A value of any kind but object, with a copy of `size` bytes.
    CZUModData(uint32_t tag, const void* bytes, size_t size)
        : m_tag(tag), m_bytes(FirstByte(bytes), FirstByte(bytes) + size) {}
    // An object value; adds a reference to `object`, which may be null.
    explicit CZUModData(IReference* object) : m_tag(kZUModDataObject), m_object(object) {}

    // The values that policies and properties consist of, each with one reference for the caller.
    static CRefPtr_T<IZUModData> FromBool(bool value) {
        const uint8_t byte = value ? 1 : 0;
        return New(kZUModDataBool, &byte, sizeof byte);
    }
    static CRefPtr_T<IZUModData> FromInt64(int64_t value) {
        return New(kZUModDataInt64, &value, sizeof value);
    }
    // A null text becomes an empty one.
    static CRefPtr_T<IZUModData> FromText(const char* text) {
        const char* characters = text != nullptr ? text : "";
        return New(kZUModDataText, characters, std::strlen(characters) + 1);
    }
    static CRefPtr_T<IZUModData> FromPointer(uint64_t value) {
        return New(kZUModDataPointer, &value, sizeof value);
    }

    uint64_t AddRef() override { return CReference::AddRef(); }
    int64_t Release() override { return CReference::Release(); }

    uint32_t GetType() override { return m_tag; }
    const void* GetData() override { return m_bytes.empty() ? nullptr : m_bytes.data(); }
    uint64_t GetSize() override { return m_bytes.size(); }
    const char* GetString() override {
        return m_tag == kZUModDataText ? static_cast<const char*>(GetData()) : nullptr;
    }
    const void* GetBlock() override { return m_tag == kZUModDataBlock ? GetData() : nullptr; }
    bool GetBool() override { return Read<uint8_t>(kZUModDataBool) != 0; }
    int64_t GetInt64() override { return Read<int64_t>(kZUModDataInt64); }
    float GetFloat() override { return Read<float>(kZUModDataFloat); }
    IReference* GetObject() override { return m_tag == kZUModDataObject ? m_object.Get() : nullptr; }
    IZUModData* Clone() override {
        if (m_tag != kZUModDataObject) {
            return new CZUModData(m_tag, m_bytes.data(), m_bytes.size());
        }
        auto copy = std::make_unique<CZUModData>(m_object.Get());
        // Required by the contract: the copy of an object value has eight zero bytes, as an integer has.
        copy->m_bytes.assign(sizeof(int64_t), 0);
        return copy.release();
    }
    uint64_t GetPointer() override { return Read<uint64_t>(kZUModDataPointer); }

private:
    static CRefPtr_T<IZUModData> New(ZUModDataType kind, const void* bytes, size_t size) {
        return CRefPtr_T<IZUModData>(new CZUModData(kind, bytes, size));
    }
    static const uint8_t* FirstByte(const void* bytes) { return static_cast<const uint8_t*>(bytes); }

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

#pragma GCC diagnostic pop

// Read a value that may be null or of another kind: then they return nothing, 0 or false. They check the kind
// themselves, because the getters of another module's value may not.
// The characters that CharactersOf returns are borrowed from the value.
inline const char* CharactersOf(IZUModData* value) {
    return value != nullptr && value->GetType() == kZUModDataText ? value->GetString() : nullptr;
}
inline std::optional<std::string> TextOf(IZUModData* value) {
    const char* text = CharactersOf(value);
    return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}
inline int64_t IntegerOf(IZUModData* value) {
    return value != nullptr && value->GetType() == kZUModDataInt64 ? value->GetInt64() : 0;
}
inline uint64_t PointerOf(IZUModData* value) {
    return value != nullptr && value->GetType() == kZUModDataPointer ? value->GetPointer() : 0;
}
inline bool BoolOf(IZUModData* value) {
    return value != nullptr && value->GetType() == kZUModDataBool && value->GetBool();
}

}  // namespace zumod
