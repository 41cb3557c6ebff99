#include "src/base/mem_alloctor_ex.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "src/base/mem_buffer.h"
#include "tests/support/doubles/raw_slots.h"
#include "tests/support/watch/call_watch.h"

namespace zumod {
namespace {

using testing::CallSlot;
using testing::CallWatch;
using Alloctor = CMemAlloctorEx<CMemBuffer>;

// Each buffer holds one reference to the allocator, besides the test's.
int64_t ReferencesOf(const CRefPtr_T<Alloctor>& alloctor) {
    alloctor->AddRef();
    return alloctor->Release();
}

uint64_t WordAt(const void* object, size_t offset) {
    uint64_t word = 0;
    std::memcpy(&word, static_cast<const char*>(object) + offset, sizeof word);
    return word;
}

TEST(MemAlloctorEx, AllocOfZeroReturnsAValidBufferWithoutABlock) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    const CRefPtr_T<IBuffer> buffer = alloctor->Alloc(0);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->GetData(), nullptr);
    EXPECT_EQ(buffer->GetSize(), 0U);
    EXPECT_EQ(buffer->GetCapacity(), 0U);
    EXPECT_EQ(buffer->SetSize(1), 0U);
}

TEST(MemAlloctorEx, ABufferIsOneHeapBlockOfExactlyTheSizeAndOneReference) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    const CallWatch watch;
    const CRefPtr_T<IBuffer> buffer = alloctor->Alloc(12345);
    EXPECT_EQ(watch.Count(CallWatch::malloc, 12345), 1);
    EXPECT_EQ(buffer->GetData(), watch.FirstMalloc());
    EXPECT_EQ(buffer->GetCapacity(), 12345U);
    EXPECT_EQ(buffer->AddRef(), 2U);
    EXPECT_EQ(buffer->Release(), 1);
    EXPECT_EQ(ReferencesOf(alloctor), 2);
}

TEST(MemAlloctorEx, AllocBufferIsTheSameAsAlloc) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor(50));
    const CRefPtr_T<IBuffer> buffer = alloctor->AllocBuffer(60);
    EXPECT_EQ(buffer->GetCapacity(), 50U);
    EXPECT_EQ(alloctor->AllocBuffer(0)->GetData(), nullptr);
}

TEST(MemAlloctorEx, ARequestAboveTheMaximumGetsTheMaximum) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor(64));
    EXPECT_EQ(alloctor->GetMaxSize(), 64U);
    EXPECT_EQ(alloctor->Alloc(63)->GetCapacity(), 63U);
    EXPECT_EQ(alloctor->Alloc(64)->GetCapacity(), 64U);
    const CallWatch watch;
    EXPECT_EQ(alloctor->Alloc(65)->GetCapacity(), 64U);
    EXPECT_EQ(watch.Count(CallWatch::malloc, 65), 0);
    EXPECT_EQ(watch.Count(CallWatch::malloc, 64), 1);
}

TEST(MemAlloctorEx, AMaximumOfZeroReturnsBuffersWithoutABlock) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor(0));
    const CRefPtr_T<IBuffer> buffer = alloctor->Alloc(10);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->GetData(), nullptr);
    EXPECT_EQ(buffer->GetCapacity(), 0U);
}

TEST(MemAlloctorEx, RetriesExactlyOnceWhenTheHeapFails) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    CallWatch watch;
    watch.Fail(CallWatch::malloc, 7777, 1);
    const CRefPtr_T<IBuffer> buffer = alloctor->Alloc(7777);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->GetCapacity(), 7777U);
    EXPECT_EQ(watch.Count(CallWatch::malloc, 7777), 2);
}

TEST(MemAlloctorEx, ReturnsAnEmptyPointerAfterTheSecondFailure) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    CallWatch watch;
    watch.Fail(CallWatch::malloc, 7777, 3);
    EXPECT_EQ(alloctor->Alloc(7777), nullptr);
    EXPECT_EQ(watch.Count(CallWatch::malloc, 7777), 2);
    EXPECT_EQ(ReferencesOf(alloctor), 1);
    EXPECT_EQ(alloctor->GetAccountedBytes(), 0U);
}

TEST(MemAlloctorEx, AFailureToConstructTheBufferPropagatesAndLeaksTheBlock) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    CallWatch watch;
    watch.Fail(CallWatch::malloc, sizeof(CMemBuffer), 1);
    EXPECT_THROW(static_cast<void>(alloctor->Alloc(4321)), std::bad_alloc);
    void* block = watch.FirstMalloc();
    EXPECT_EQ(watch.Count(CallWatch::malloc, 4321), 1);
    EXPECT_EQ(watch.FreesOf(block), 0);
    EXPECT_EQ(ReferencesOf(alloctor), 1);
    std::free(block);
}

TEST(MemAlloctorEx, FreeOfNullIsRefused) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    EXPECT_FALSE(alloctor->Free(nullptr));
}

TEST(MemAlloctorEx, FreeReleasesTheBlockAndDoesNotClearTheBuffersPointer) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    const CRefPtr_T<IBuffer> buffer = alloctor->Alloc(99);
    void* block = buffer->GetData();
    const CallWatch watch;
    EXPECT_TRUE(alloctor->Free(buffer.Get()));
    EXPECT_EQ(watch.FreesOf(block), 1);
    EXPECT_EQ(buffer->GetData(), block);
    EXPECT_EQ(buffer->GetCapacity(), 99U);
    EXPECT_EQ(alloctor->GetAccountedBytes(), 0U);
    buffer->Attach(nullptr, 0);
}

TEST(MemAlloctorEx, FreeOfABufferWithoutABlockSucceeds) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    const CRefPtr_T<IBuffer> buffer = alloctor->Alloc(0);
    EXPECT_TRUE(alloctor->Free(buffer.Get()));
}

// A buffer whose allocator block differs from the block that users see.
class ShiftedBuffer : public IBuffer {
public:
    uint64_t AddRef() override { return 1; }
    int64_t Release() override { return 1; }
    void* GetData() override { return static_cast<char*>(block) + 16; }
    uint64_t GetSize() override { return 0; }
    uint64_t SetSize(uint64_t) override { return 0; }
    uint64_t GetCapacity() override { return block_size - 16; }
    uint64_t GetAllocSize() override { return block_size; }
    void* GetAllocData() override { return block; }
    CRefPtr_T<IMemAlloctor> GetAllocator() override { return {}; }
    void* Resize(uint64_t) override { return nullptr; }
    void* Attach(void* data, uint64_t capacity) override {
        block_size = capacity;
        return std::exchange(block, data);
    }

    void* block = std::malloc(100);
    uint64_t block_size = 100;
};

TEST(MemAlloctorEx, UsesOnlyGetAllocDataAndGetAllocSize) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    ShiftedBuffer buffer;
    void* block = alloctor->ReAlloc(&buffer, 200);
    EXPECT_EQ(block, buffer.block);
    EXPECT_EQ(alloctor->GetAccountedBytes(), 100U);
    const CallWatch watch;
    EXPECT_TRUE(alloctor->Free(&buffer));
    EXPECT_EQ(watch.FreesOf(block), 1);
}

TEST(MemAlloctorEx, ReAllocOfNullReturnsNull) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    EXPECT_EQ(alloctor->ReAlloc(nullptr, 10), nullptr);
    EXPECT_EQ(alloctor->GetAccountedBytes(), 0U);
}

TEST(MemAlloctorEx, ReAllocAccountsForTheChangeOnly) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    const CRefPtr_T<IBuffer> buffer = alloctor->Alloc(100);
    EXPECT_EQ(alloctor->GetAccountedBytes(), 0U);
    const void* block = alloctor->ReAlloc(buffer.Get(), 150);
    EXPECT_EQ(block, buffer->GetData());
    EXPECT_EQ(alloctor->GetAccountedBytes(), 50U);
    EXPECT_NE(alloctor->ReAlloc(buffer.Get(), 120), nullptr);
    EXPECT_EQ(alloctor->GetAccountedBytes(), 20U);
}

TEST(MemAlloctorEx, TheAccountedBytesWrapWhenABufferShrinks) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    const CRefPtr_T<IBuffer> buffer = alloctor->Alloc(100);
    EXPECT_NE(alloctor->ReAlloc(buffer.Get(), 99), nullptr);
    EXPECT_EQ(alloctor->GetAccountedBytes(), ~uint64_t{0});
}

TEST(MemAlloctorEx, AFailedReAllocChangesNeitherTheBufferNorTheAccountedBytes) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    const CRefPtr_T<IBuffer> buffer = alloctor->Alloc(100);
    std::memcpy(buffer->GetData(), "kept", 5);
    buffer->SetSize(5);
    void* block = buffer->GetData();
    CallWatch watch;
    watch.Fail(CallWatch::realloc, 200, 1);
    EXPECT_EQ(alloctor->ReAlloc(buffer.Get(), 200), nullptr);
    EXPECT_EQ(buffer->GetData(), block);
    EXPECT_EQ(buffer->GetCapacity(), 100U);
    EXPECT_EQ(buffer->GetSize(), 5U);
    EXPECT_STREQ(static_cast<const char*>(buffer->GetData()), "kept");
    EXPECT_EQ(alloctor->GetAccountedBytes(), 0U);
    EXPECT_EQ(watch.FreesOf(block), 0);
}

TEST(MemAlloctorEx, ReAllocToZeroWithoutABlockReturnsNull) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    const CRefPtr_T<IBuffer> buffer = alloctor->Alloc(0);
    EXPECT_EQ(alloctor->ReAlloc(buffer.Get(), 0), nullptr);
    EXPECT_EQ(buffer->GetAllocData(), nullptr);
    EXPECT_EQ(buffer->GetCapacity(), 0U);
    EXPECT_EQ(alloctor->GetAccountedBytes(), 0U);
}

TEST(MemAlloctorEx, ReAllocToZeroFreesTheBlockAttachesNullAndReturnsNull) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    const CRefPtr_T<IBuffer> buffer = alloctor->Alloc(100);
    buffer->SetSize(10);
    EXPECT_EQ(alloctor->ReAlloc(buffer.Get(), 0), nullptr);
    EXPECT_EQ(buffer->GetData(), nullptr);
    EXPECT_EQ(buffer->GetCapacity(), 0U);
    EXPECT_EQ(buffer->GetSize(), 10U);
    EXPECT_EQ(alloctor->GetAccountedBytes(), uint64_t{0} - 100U);
}

TEST(MemAlloctorEx, ReAllocAllocatesABlockForABufferWithoutOne) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    const CRefPtr_T<IBuffer> buffer = alloctor->Alloc(0);
    EXPECT_NE(alloctor->ReAlloc(buffer.Get(), 30), nullptr);
    EXPECT_EQ(buffer->GetCapacity(), 30U);
    EXPECT_EQ(alloctor->GetAccountedBytes(), 30U);
}

TEST(MemAlloctorEx, ReAllocIsNotLimitedByTheMaximum) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor(16));
    const CRefPtr_T<IBuffer> buffer = alloctor->Alloc(16);
    EXPECT_NE(alloctor->ReAlloc(buffer.Get(), 1000), nullptr);
    EXPECT_EQ(buffer->GetCapacity(), 1000U);
}

TEST(MemAlloctorEx, LivesUntilItsLastBufferIsDestroyed) {
    CRefPtr_T<Alloctor> owner(new Alloctor);
    Alloctor* alloctor = owner.Get();
    CRefPtr_T<IBuffer> first = alloctor->Alloc(1);
    CRefPtr_T<IBuffer> second = alloctor->Alloc(2);
    owner = nullptr;
    first = nullptr;
    EXPECT_EQ(alloctor->GetMaxSize(), ~uint64_t{0});
    EXPECT_NE(second->Resize(100), nullptr);
    EXPECT_EQ(alloctor->AddRef(), 2U);
    EXPECT_EQ(alloctor->Release(), 1);
    second = nullptr;  // destroys the allocator as well, under the address sanitizer
}

TEST(MemAlloctorEx, KeepsItsFieldsInTheirOrderWithTheirValues) {
    const CRefPtr_T<Alloctor> alloctor(new Alloctor);
    const CRefPtr_T<IBuffer> buffer = alloctor->Alloc(10);
    alloctor->ReAlloc(buffer.Get(), 13);
    const void* object = alloctor.Get();
    EXPECT_EQ(WordAt(object, 16), 2U);            // reference count
    EXPECT_EQ(WordAt(object, 24), 1U);            // life count
    EXPECT_EQ(WordAt(object, 32), 0U);            // reserved
    EXPECT_EQ(WordAt(object, 40), 3U);            // accounted bytes
    EXPECT_EQ(WordAt(object, 48), ~uint64_t{0});  // no limit
    EXPECT_EQ(WordAt(object, 56), 4096U);
    EXPECT_EQ(WordAt(object, 64), 1000U);
}

TEST(MemAlloctorEx, ImplementsEverySlotOfItsTable) {
    const CRefPtr_T<Alloctor> owner(new Alloctor(1000));
    IMemAlloctor* alloctor = owner.Get();
    EXPECT_EQ((CallSlot<uint64_t>(alloctor, 2)), 2U);                         // AddRef
    EXPECT_EQ((CallSlot<int64_t>(alloctor, 3)), 1);                           // Release
    auto buffer = CallSlot<CRefPtr_T<IBuffer>>(alloctor, 4, uint64_t{2000});  // Alloc
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->GetCapacity(), 1000U);
    EXPECT_EQ(buffer->AddRef(), 2U);
    EXPECT_EQ(buffer->Release(), 1);
    EXPECT_FALSE((CallSlot<bool>(alloctor, 5, static_cast<IBuffer*>(nullptr))));  // Free
    EXPECT_TRUE((CallSlot<bool>(alloctor, 5, buffer.Get())));
    buffer->Attach(nullptr, 0);
    EXPECT_EQ((CallSlot<uint64_t>(alloctor, 6)), 1000U);                       // GetMaxSize
    void* block = CallSlot<void*>(alloctor, 7, buffer.Get(), uint64_t{3000});  // ReAlloc
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(buffer->GetData(), block);
    EXPECT_EQ(owner->GetAccountedBytes(), 3000U);
    buffer = CallSlot<CRefPtr_T<IBuffer>>(alloctor, 8, uint64_t{5});  // AllocBuffer
    EXPECT_EQ(buffer->GetCapacity(), 5U);
}

}  // namespace
}  // namespace zumod
