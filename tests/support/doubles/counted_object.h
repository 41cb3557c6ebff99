// Doubles that count every reference taken and released, to show that they balance.
//
// Thread rule: AddRef and Release are [any thread].
#pragma once

#include <atomic>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "zumod/create_policy.h"
#include "zumod/mod_data.h"
#include "zumod/ref_ptr.h"
#include "zumod/reference.h"

namespace zumod::testing {

// Totals over all objects that were constructed with it.
struct ReferenceLedger {
    std::atomic<int> born{0};
    std::atomic<int> died{0};
    std::atomic<int> taken{0};
    std::atomic<int> given_back{0};

    int Alive() const { return born - died; }
    int Held() const { return taken - given_back; }
    bool Balanced() const { return Alive() == 0 && Held() == 0; }
};

template <class Interface>
class Counted : public Interface {
public:
    explicit Counted(ReferenceLedger& ledger) : m_ledger(ledger) { ++m_ledger.born; }
    ~Counted() override { ++m_ledger.died; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

    uint64_t AddRef() override {
        ++m_ledger.taken;
        return static_cast<uint64_t>(++m_references);
    }
    int64_t Release() override {
        ++m_ledger.given_back;
        const int64_t left = --m_references;
        if (left == 0) {
            delete this;
        }
        return left;
    }

    int64_t References() const { return m_references; }

protected:
    ReferenceLedger& Ledger() const { return m_ledger; }

private:
    ReferenceLedger& m_ledger;
    std::atomic<int64_t> m_references{0};
};

class CountedObject final : public Counted<IReference> {
public:
    using Counted::Counted;
};

// A value of any tag and any bytes, matching or not. Its getters read the bytes without checking the tag,
// so that a test detects a reader that does not check it either.
class CountedData : public Counted<IZUModData> {
public:
    CountedData(ReferenceLedger& ledger, uint32_t tag, std::vector<uint8_t> bytes)
        : Counted(ledger), m_tag(tag), m_bytes(std::move(bytes)) {}

    static std::vector<uint8_t> TextBytes(const std::string& text) {
        return {text.c_str(), text.c_str() + text.size() + 1};
    }
    static std::vector<uint8_t> Int64Bytes(int64_t number) {
        std::vector<uint8_t> bytes(sizeof number);
        std::memcpy(bytes.data(), &number, sizeof number);
        return bytes;
    }

    uint32_t GetType() override { return m_tag; }
    const void* GetData() override { return m_bytes.empty() ? nullptr : m_bytes.data(); }
    uint64_t GetSize() override { return m_bytes.size(); }
    const char* GetString() override { return static_cast<const char*>(GetData()); }
    const void* GetBlock() override { return GetData(); }
    bool GetBool() override { return Read<uint8_t>() != 0; }
    int64_t GetInt64() override { return Read<int64_t>(); }
    float GetFloat() override { return Read<float>(); }
    IReference* GetObject() override { return nullptr; }
    IZUModData* Clone() override { return new CountedData(Ledger(), m_tag, m_bytes); }
    uint64_t GetPointer() override { return Read<uint64_t>(); }

private:
    template <class Number>
    Number Read() const {
        Number number{};
        if (m_bytes.size() >= sizeof number) {
            std::memcpy(&number, m_bytes.data(), sizeof number);
        }
        return number;
    }

    uint32_t m_tag;
    std::vector<uint8_t> m_bytes;
};

// A value that throws when it is read.
class ThrowingData final : public CountedData {
public:
    explicit ThrowingData(ReferenceLedger& ledger) : CountedData(ledger, kZUModDataText, TextBytes("text")) {}
    uint32_t GetType() override { throw std::runtime_error("value"); }
};

// A policy whose values are counted too. Returns null for a key that it does not have.
class CountedPolicy final : public Counted<IZUModCreatePolicy> {
public:
    using Counted::Counted;

    void Set(const std::string& key, uint32_t tag, std::vector<uint8_t> bytes) {
        m_values[key] = {tag, std::move(bytes)};
    }
    void SetText(const std::string& key, const std::string& text) {
        Set(key, kZUModDataText, CountedData::TextBytes(text));
    }
    void SetInt64(const std::string& key, int64_t number) {
        Set(key, kZUModDataInt64, CountedData::Int64Bytes(number));
    }
    // The next `good` look-ups succeed; every later one throws.
    void ThrowAfter(int good) { m_good_lookups = good; }

    IZUModData* GetPolicy(const char* key) override {
        if (m_good_lookups-- == 0) {
            m_good_lookups = 0;
            throw std::runtime_error("policy");
        }
        const auto found = m_values.find(key);
        return found != m_values.end() ? new CountedData(Ledger(), found->second.first, found->second.second)
                                       : nullptr;
    }

private:
    std::map<std::string, std::pair<uint32_t, std::vector<uint8_t>>> m_values;
    int m_good_lookups = 1'000'000;
};

}  // namespace zumod::testing
