// The SDK's declarations as of version 2.0, frozen: what a host and a codec were built from then. Never edit
// this file to follow include/zumod/. If the tests beside it fail, the module has broken those hosts and
// codecs.
//
// Thread rule: that of include/zumod/.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <utility>

namespace sdk_v2_0 {

// ---- Reference counting.

class IReference {
public:
    virtual ~IReference() = default;
    virtual uint64_t AddRef() = 0;
    virtual int64_t Release() = 0;
};

template <class Interface>
class CCounted_T : public Interface {
public:
    uint64_t AddRef() override { return static_cast<uint64_t>(m_references.fetch_add(1) + 1); }
    int64_t Release() override {
        const int64_t before = m_references.fetch_sub(1);
        if (before == 1 && m_lives.fetch_sub(1) == 1) {
            delete this;
        }
        return before - 1;
    }

private:
    // Any thread that holds a reference reads and writes both, with sequentially consistent operations.
    std::atomic<int64_t> m_references{0};
    std::atomic<int64_t> m_lives{1};
};
using CReference = CCounted_T<IReference>;

template <class T>
class CRefPtr_T {
public:
    CRefPtr_T() = default;
    explicit CRefPtr_T(T* object) : m_object(object) {
        if (m_object != nullptr) {
            m_object->AddRef();
        }
    }
    CRefPtr_T(const CRefPtr_T& other) : CRefPtr_T(other.m_object) {}
    CRefPtr_T(CRefPtr_T&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    CRefPtr_T& operator=(CRefPtr_T other) noexcept {
        std::swap(m_object, other.m_object);
        return *this;
    }
    ~CRefPtr_T() {
        if (m_object != nullptr) {
            m_object->Release();
        }
    }
    static CRefPtr_T Adopt(T* object) {
        CRefPtr_T owner;
        owner.m_object = object;
        return owner;
    }
    T* Get() const { return m_object; }
    T* operator->() const { return m_object; }

private:
    T* m_object = nullptr;
};

// ---- Interfaces.

class IZUModData : public virtual IReference {
public:
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;
    virtual uint32_t GetType() = 0;
    virtual const void* GetData() = 0;
    virtual uint64_t GetSize() = 0;
    virtual const char* GetString() = 0;
    virtual const void* GetBlock() = 0;
    virtual bool GetBool() = 0;
    virtual int64_t GetInt64() = 0;
    virtual float GetFloat() = 0;
    virtual IReference* GetObject() = 0;
    virtual IZUModData* Clone() = 0;
    virtual uint64_t GetPointer() = 0;
};

class IZUModCreatePolicy : public virtual IReference {
public:
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;
    virtual IZUModData* GetPolicy(const char* key) = 0;
};

class IZUModInterface : public virtual IReference {
public:
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;
    virtual bool QueryInterface(const char* name, void** out) = 0;
    virtual bool SetProperty(const char* key, IZUModData* value) = 0;
    virtual IZUModData* GetProperty(const char* key) = 0;
};

class IZUModRuntime {
public:
    virtual int WriteLog(uint32_t level, const char* text) = 0;
    virtual int32_t Service2(uint8_t flag, uint64_t a, uint64_t b, uint64_t c, uint64_t d) = 0;
    virtual int32_t Service3(uint8_t flag, uint64_t a, uint64_t b, uint64_t c) = 0;
    virtual IZUModData* GetEnvProperty(const char* key) = 0;

protected:
    ~IZUModRuntime() = default;
};

class IChannelStream : public virtual IReference {
public:
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;
    virtual int Read(void* data, unsigned long size, unsigned long* done) = 0;
    virtual int Write(const void* data, unsigned long size, unsigned long* done) = 0;
};

class IAutoConfigRaw : public virtual IReference {
public:
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;
    virtual int ReservedAutoConfig() { return 0; }
};
class IPluginRaw : public IAutoConfigRaw {
public:
    virtual int SetChannelStream(IChannelStream* stream) = 0;
    virtual int Run() = 0;
    virtual int ExitInstance() = 0;
    virtual int ReservedPlugin8() { return 0; }
    virtual int ReservedPlugin9() { return 0; }
    virtual CRefPtr_T<IReference> ReservedPlugin10() { return {}; }
};
class IClientCameraPlugin : public virtual IPluginRaw, public virtual IZUModInterface {
public:
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;
    virtual void ReservedPlugin11() {}
};

class IVEncArgs : public virtual IReference {
public:
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;
    virtual uint64_t GetArgOption() = 0;
    virtual const void* GetInputData() = 0;
    virtual uint64_t GetInputSize() = 0;
    virtual uint64_t GetArgFlags() = 0;
    virtual void ResetArgs() = 0;
    virtual uint64_t PrepareOutput(uint32_t size) = 0;
    virtual void* GetOutputData() = 0;
    virtual uint64_t GetOutputSize() = 0;
};

struct VideoInputFormat {
    int32_t width;
    int32_t height;
    int32_t stride;
    int32_t bits_per_pixel;
    uint32_t format;
};

class IVEncoder : public virtual IReference, public virtual IZUModInterface {
public:
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;
    virtual int ReservedEncoder7() { return 0; }
    virtual int ReservedEncoder8() { return 0; }
    virtual int ReservedEncoder9() { return 0; }
    virtual int SetInputFormat(const VideoInputFormat* format) = 0;
    virtual int ReservedEncoder11() { return 0; }
    virtual int ReservedEncoder12() { return 0; }
    virtual int ReservedEncoder13() { return 0; }
    virtual int ReservedEncoder14() { return 0; }
    virtual int ReservedEncoder15() { return 0; }
    virtual int ReservedEncoder16() { return 0; }
    virtual int ReservedEncoder17() { return 0; }
    virtual int ReservedEncoder18() { return 0; }
    virtual int ReservedEncoder19() { return 0; }
    virtual bool Encode(IVEncArgs* args) = 0;
};

struct VideoOutputFormat {
    int32_t width;
    int32_t height;
    int32_t stride;
    uint32_t format;
};
struct VideoDecodedPicture {
    int32_t width;
    int32_t height;
    uint32_t format;
    int32_t plane_count;
    const uint8_t* planes[3];
    int32_t strides[3];
    int32_t key_frame;
};

class IVDecArgs : public virtual IReference {
public:
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;
    virtual const void* GetInputData() = 0;
    virtual uint64_t GetInputSize() = 0;
    virtual void OnPicture(const VideoDecodedPicture* picture) = 0;
};

class IVDecoder : public virtual IReference, public virtual IZUModInterface {
public:
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;
    virtual int ReservedDecoder7() { return 0; }
    virtual int ReservedDecoder8() { return 0; }
    virtual int ReservedDecoder9() { return 0; }
    virtual int SetOutputFormat(const void* format) = 0;
    virtual int ReservedDecoder11() { return 0; }
    virtual int ReservedDecoder12() { return 0; }
    virtual int ReservedDecoder13() { return 0; }
    virtual int ReservedDecoder14() { return 0; }
    virtual int ReservedDecoder15() { return 0; }
    virtual int ReservedDecoder16() { return 0; }
    virtual int ReservedDecoder17() { return 0; }
    virtual int ReservedDecoder18() { return 0; }
    virtual int ReservedDecoder19() { return 0; }
    virtual bool Decode(IReference* args) = 0;
};

// ---- The module's export.

struct ZUModDescriptor {
    uint64_t version;
    const char* name;
    int (*attach_runtime)(IZUModRuntime* host);
    void (*detach_runtime)();
    int (*create)(IZUModCreatePolicy* policy, IZUModInterface** out);
    const char* build_stamp;
};
using EntryPointFunction = const ZUModDescriptor* (*)();

// ---- A value and a policy, as hosts and codecs compiled them in.

// The bases contain IReference twice, which GCC warns about.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winaccessible-base"

class CZUModData final : public IZUModData, private CReference {
public:
    CZUModData(uint32_t tag, const void* bytes, size_t size)
        : m_tag(tag), m_bytes(static_cast<const char*>(bytes), size) {}
    static CRefPtr_T<IZUModData> FromBool(bool value) { return New(1, &value, sizeof value); }
    static CRefPtr_T<IZUModData> FromInt64(int64_t value) { return New(2, &value, sizeof value); }
    static CRefPtr_T<IZUModData> FromText(const char* text) { return New(4, text, std::strlen(text) + 1); }

    uint64_t AddRef() override { return CReference::AddRef(); }
    int64_t Release() override { return CReference::Release(); }
    uint32_t GetType() override { return m_tag; }
    const void* GetData() override { return m_bytes.data(); }
    uint64_t GetSize() override { return m_bytes.size(); }
    const char* GetString() override { return m_tag == 4 ? m_bytes.data() : nullptr; }
    const void* GetBlock() override { return m_tag == 5 ? m_bytes.data() : nullptr; }
    bool GetBool() override { return m_tag == 1 && m_bytes[0] != 0; }
    int64_t GetInt64() override { return Number<int64_t>(2); }
    float GetFloat() override { return Number<float>(3); }
    IReference* GetObject() override { return nullptr; }
    IZUModData* Clone() override { return new CZUModData(m_tag, m_bytes.data(), m_bytes.size()); }
    uint64_t GetPointer() override { return Number<uint64_t>(6); }

private:
    static CRefPtr_T<IZUModData> New(uint32_t tag, const void* bytes, size_t size) {
        return CRefPtr_T<IZUModData>(new CZUModData(tag, bytes, size));
    }
    template <class T>
    T Number(uint32_t tag) const {
        T number{};
        if (m_tag == tag && m_bytes.size() >= sizeof number) {
            std::memcpy(&number, m_bytes.data(), sizeof number);
        }
        return number;
    }

    uint32_t m_tag;
    std::string m_bytes;
};

class CZUModPolicy final : public virtual IZUModCreatePolicy, private CReference {
public:
    CZUModPolicy(const char* interface_name, int64_t version) {
        Set("zu.module.interface.name", CZUModData::FromText(interface_name));
        Set("zu.module.version", CZUModData::FromInt64(version));
    }
    void Set(const char* key, CRefPtr_T<IZUModData> value) { m_values[key] = std::move(value); }

    uint64_t AddRef() override { return CReference::AddRef(); }
    int64_t Release() override { return CReference::Release(); }
    IZUModData* GetPolicy(const char* key) override {
        const auto found = m_values.find(key);
        return found != m_values.end() ? found->second->Clone() : nullptr;
    }

private:
    std::map<std::string, CRefPtr_T<IZUModData>> m_values;
};

#pragma GCC diagnostic pop

}  // namespace sdk_v2_0
