#include "src/loader/mod_data.h"

#include <cstring>
#include <memory>

namespace zumod {
namespace {

CRefPtr_T<IZUModData> NewValue(ZUModDataType kind, const void* bytes, size_t size) {
    return CRefPtr_T<IZUModData>(new CZUModData(kind, bytes, size));
}

const uint8_t* FirstByte(const void* bytes) {
    return static_cast<const uint8_t*>(bytes);
}

}  // namespace

CZUModData::CZUModData(uint32_t tag, const void* bytes, size_t size)
    : m_tag(tag), m_bytes(FirstByte(bytes), FirstByte(bytes) + size) {}

CZUModData::CZUModData(IReference* object) : m_tag(kZUModDataObject), m_object(object) {}

CRefPtr_T<IZUModData> CZUModData::FromBool(bool value) {
    const uint8_t byte = value ? 1 : 0;
    return NewValue(kZUModDataBool, &byte, sizeof byte);
}

CRefPtr_T<IZUModData> CZUModData::FromInt64(int64_t value) {
    return NewValue(kZUModDataInt64, &value, sizeof value);
}

CRefPtr_T<IZUModData> CZUModData::FromText(const char* text) {
    const char* characters = text != nullptr ? text : "";
    return NewValue(kZUModDataText, characters, std::strlen(characters) + 1);
}

CRefPtr_T<IZUModData> CZUModData::FromPointer(uint64_t value) {
    return NewValue(kZUModDataPointer, &value, sizeof value);
}

const char* CZUModData::GetString() {
    return m_tag == kZUModDataText ? static_cast<const char*>(GetData()) : nullptr;
}

const void* CZUModData::GetBlock() {
    return m_tag == kZUModDataBlock ? GetData() : nullptr;
}

IReference* CZUModData::GetObject() {
    return m_tag == kZUModDataObject ? m_object.Get() : nullptr;
}

IZUModData* CZUModData::Clone() {
    if (m_tag != kZUModDataObject) {
        return new CZUModData(m_tag, m_bytes.data(), m_bytes.size());
    }
    auto copy = std::make_unique<CZUModData>(m_object.Get());
    // The copy of an object value carries the eight zero bytes that an integer would have. Kept as it is.
    copy->m_bytes.assign(sizeof(int64_t), 0);
    return copy.release();
}

}  // namespace zumod
