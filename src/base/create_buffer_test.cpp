#include "src/base/create_buffer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "src/base/mem_alloctor_ex.h"
#include "src/base/mem_buffer.h"
#include "tests/support/watch/call_watch.h"

namespace zumod {
namespace {

using testing::CallWatch;

std::string TextOf(const CRefPtr_T<IBuffer>& buffer) {
    return {static_cast<const char*>(buffer->GetData()), buffer->GetSize()};
}

TEST(CreateBuffer, IsEmptyWithoutAnAllocator) {
    EXPECT_EQ(CreateBuffer(nullptr, "bytes", 5), nullptr);
}

TEST(CreateBuffer, CopiesTheBytesAndSetsTheSize) {
    const CRefPtr_T<IMemAlloctor> alloctor(new CMemAlloctorEx<CMemBuffer>);
    const CRefPtr_T<IBuffer> buffer = CreateBuffer(alloctor.Get(), "by\0te!", 5);
    EXPECT_EQ(TextOf(buffer), std::string("by\0te", 5));
    EXPECT_EQ(buffer->GetCapacity(), 5U);
    EXPECT_EQ(buffer->GetAllocator(), alloctor);
    EXPECT_EQ(buffer->AddRef(), 2U);
    EXPECT_EQ(buffer->Release(), 1);
}

TEST(CreateBuffer, UsesTheDefaultAllocatorIfNoneIsPassed) {
    const CRefPtr_T<IBuffer> buffer = CreateBuffer("0123456789", 10);
    EXPECT_EQ(TextOf(buffer), "0123456789");
    EXPECT_EQ(buffer->GetAllocator(), g_pDefaultAlloctor);
}

TEST(CreateBuffer, OfNoBytesIsAValidBufferWithoutABlock) {
    const CRefPtr_T<IBuffer> buffer = CreateBuffer(nullptr, 0);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->GetData(), nullptr);
    EXPECT_EQ(buffer->GetSize(), 0U);
    EXPECT_EQ(buffer->GetCapacity(), 0U);
}

TEST(CreateBuffer, IsEmptyWhenTheAllocatorFails) {
    CallWatch watch;
    watch.Fail(CallWatch::malloc, 3333, 2);
    const std::string bytes(3333, 'x');
    EXPECT_EQ(CreateBuffer(bytes.data(), bytes.size()), nullptr);
    EXPECT_EQ(watch.Count(CallWatch::malloc, 3333), 2);
}

// Returns buffers with a capacity of 16 bytes, as an allocator with a maximum does for a larger request. The
// block has 64 bytes, so that the copy stays within bounds.
class ShortAlloctor final : public CCounted_T<IMemAlloctor> {
public:
    CRefPtr_T<IBuffer> Alloc(uint64_t size) override {
        asked = size;
        return CRefPtr_T<IBuffer>(new CMemBuffer(this, std::calloc(1, 64), 16));
    }
    bool Free(IBuffer* buffer) override {
        std::free(buffer->GetAllocData());
        return true;
    }
    uint64_t GetMaxSize() override { return 16; }
    void* ReAlloc(IBuffer*, uint64_t) override { return nullptr; }
    CRefPtr_T<IBuffer> AllocBuffer(uint64_t) override { return {}; }

    uint64_t asked = 0;
};

// A buffer with a used size of 7 that keeps the sizes it is told.
class ToldBuffer final : public CCounted_T<IBuffer> {
public:
    void* GetData() override { return m_block; }
    uint64_t GetSize() override { return 7; }
    uint64_t SetSize(uint64_t size) override {
        told.push_back(size);
        return 7;
    }
    uint64_t GetCapacity() override { return sizeof m_block; }
    uint64_t GetAllocSize() override { return sizeof m_block; }
    void* GetAllocData() override { return m_block; }
    CRefPtr_T<IMemAlloctor> GetAllocator() override { return {}; }
    void* Resize(uint64_t) override { return nullptr; }
    void* Attach(void*, uint64_t) override { return nullptr; }

    std::vector<uint64_t> told;

private:
    char m_block[64] = {};
};

// Returns that buffer for every request.
class OneBufferAlloctor final : public CCounted_T<IMemAlloctor> {
public:
    CRefPtr_T<IBuffer> Alloc(uint64_t) override { return buffer; }
    bool Free(IBuffer*) override { return true; }
    uint64_t GetMaxSize() override { return 64; }
    void* ReAlloc(IBuffer*, uint64_t) override { return nullptr; }
    CRefPtr_T<IBuffer> AllocBuffer(uint64_t) override { return {}; }

    const CRefPtr_T<ToldBuffer> buffer{new ToldBuffer};
};

TEST(CreateBuffer, TellsTheBufferTheLengthEvenIfItIsZero) {
    const CRefPtr_T<OneBufferAlloctor> alloctor(new OneBufferAlloctor);
    EXPECT_EQ(CreateBuffer(alloctor.Get(), "bytes", 5), alloctor->buffer);
    EXPECT_EQ(CreateBuffer(alloctor.Get(), nullptr, 0), alloctor->buffer);
    EXPECT_EQ(alloctor->buffer->told, (std::vector<uint64_t>{5, 0}));
}

TEST(CreateBuffer, CopiesTheFullLengthEvenIfTheCapacityIsSmaller) {
    const CRefPtr_T<ShortAlloctor> alloctor(new ShortAlloctor);
    const std::string bytes = "0123456789abcdef0123456789ABCDEF";
    const CRefPtr_T<IBuffer> buffer = CreateBuffer(alloctor.Get(), bytes.data(), bytes.size());
    EXPECT_EQ(alloctor->asked, 32U);
    EXPECT_EQ(buffer->GetSize(), 16U);
    EXPECT_EQ(std::memcmp(buffer->GetData(), bytes.data(), 32), 0);
}

}  // namespace
}  // namespace zumod
