#include "src/base/mem_buffer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "src/base/create_buffer.h"
#include "src/base/mem_alloctor_ex.h"
#include "tests/support/doubles/raw_slots.h"
#include "tests/support/watch/call_watch.h"

namespace zumod {
namespace {

using testing::CallSlot;
using testing::CallWatch;
using Calls = std::vector<std::string>;

// Records the calls of a buffer to its allocator.
class RecordingAlloctor : public IMemAlloctor {
public:
    uint64_t AddRef() override {
        calls.emplace_back("AddRef");
        return 1;
    }
    int64_t Release() override {
        calls.emplace_back("Release");
        return 1;
    }
    CRefPtr_T<IBuffer> Alloc(uint64_t) override { return {}; }
    bool Free(IBuffer* buffer) override {
        calls.emplace_back("Free");
        freed = buffer;
        return true;
    }
    uint64_t GetMaxSize() override { return 0; }
    void* ReAlloc(IBuffer* buffer, uint64_t size) override {
        calls.push_back("ReAlloc " + std::to_string(size));
        reallocated = buffer;
        return this;
    }
    CRefPtr_T<IBuffer> AllocBuffer(uint64_t) override { return {}; }

    Calls calls;
    IBuffer* freed = nullptr;
    IBuffer* reallocated = nullptr;
};

template <class Word>
Word ReadAt(const void* object, size_t offset) {
    Word word{};
    std::memcpy(&word, static_cast<const char*>(object) + offset, sizeof word);
    return word;
}

TEST(MemBuffer, StartsEmptyWithTheRequestedCapacity) {
    const CRefPtr_T<IBuffer> buffer = g_pDefaultAlloctor->Alloc(100);
    EXPECT_NE(buffer->GetData(), nullptr);
    EXPECT_EQ(buffer->GetSize(), 0U);
    EXPECT_EQ(buffer->GetCapacity(), 100U);
    EXPECT_EQ(buffer->GetAllocData(), buffer->GetData());
    EXPECT_EQ(buffer->GetAllocSize(), 100U);
    EXPECT_EQ(buffer->GetUserData(), 0U);
}

TEST(MemBuffer, SetSizeIsLimitedToTheCapacityAndReturnsTheSizeSet) {
    const CRefPtr_T<IBuffer> buffer = g_pDefaultAlloctor->Alloc(100);
    EXPECT_EQ(buffer->SetSize(99), 99U);
    EXPECT_EQ(buffer->GetSize(), 99U);
    EXPECT_EQ(buffer->SetSize(100), 100U);
    EXPECT_EQ(buffer->SetSize(101), 100U);
    EXPECT_EQ(buffer->GetSize(), 100U);
    EXPECT_EQ(buffer->SetSize(~uint64_t{0}), 100U);
    EXPECT_EQ(buffer->SetSize(0), 0U);
    EXPECT_EQ(buffer->GetSize(), 0U);
}

TEST(MemBuffer, SetSizeNeverMovesTheBlock) {
    const CRefPtr_T<IBuffer> buffer = g_pDefaultAlloctor->Alloc(16);
    const void* block = buffer->GetData();
    const CallWatch watch;
    buffer->SetSize(16);
    buffer->SetSize(4096);
    EXPECT_EQ(buffer->GetData(), block);
    EXPECT_EQ(buffer->GetCapacity(), 16U);
    EXPECT_EQ(watch.Count(CallWatch::malloc, 4096), 0);
}

TEST(MemBuffer, AShrinkingResizeLeavesTheSizeAboveTheCapacityUntilSetSize) {
    const CRefPtr_T<IBuffer> buffer = g_pDefaultAlloctor->Alloc(100);
    buffer->SetSize(80);
    EXPECT_NE(buffer->Resize(10), nullptr);
    EXPECT_EQ(buffer->GetCapacity(), 10U);
    EXPECT_EQ(buffer->GetSize(), 80U);
    EXPECT_EQ(buffer->SetSize(80), 10U);
    EXPECT_EQ(buffer->GetSize(), 10U);
}

TEST(MemBuffer, AGrowingResizeKeepsTheBytesAndTheSizeAndReturnsTheBlock) {
    const CRefPtr_T<IBuffer> buffer = g_pDefaultAlloctor->Alloc(8);
    std::memcpy(buffer->GetData(), "seven b", 8);
    buffer->SetSize(8);
    void* block = buffer->Resize(100000);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block, buffer->GetData());
    EXPECT_EQ(buffer->GetCapacity(), 100000U);
    EXPECT_EQ(buffer->GetSize(), 8U);
    EXPECT_STREQ(static_cast<const char*>(block), "seven b");
}

TEST(MemBuffer, ResizeIsTheAllocatorsReAllocOfThisBuffer) {
    RecordingAlloctor alloctor;
    CMemBuffer buffer(&alloctor, nullptr, 0);
    EXPECT_EQ(buffer.Resize(77), static_cast<void*>(&alloctor));
    EXPECT_EQ(alloctor.calls, (Calls{"AddRef", "ReAlloc 77"}));
    EXPECT_EQ(alloctor.reallocated, static_cast<IBuffer*>(&buffer));
}

TEST(MemBuffer, AttachStoresABlockAndReturnsTheOldOneUnfreed) {
    const CRefPtr_T<IBuffer> buffer = g_pDefaultAlloctor->Alloc(100);
    buffer->SetSize(60);
    void* before = buffer->GetData();
    void* block = std::malloc(20);
    {
        const CallWatch watch;
        EXPECT_EQ(buffer->Attach(block, 20), before);
        EXPECT_EQ(watch.FreesOf(before), 0);
    }
    EXPECT_EQ(buffer->GetData(), block);
    EXPECT_EQ(buffer->GetAllocData(), block);
    EXPECT_EQ(buffer->GetCapacity(), 20U);
    EXPECT_EQ(buffer->GetAllocSize(), 20U);
    EXPECT_EQ(buffer->GetSize(), 60U);
    std::free(before);
}

TEST(MemBuffer, SetUserDataReturnsThePreviousWord) {
    const CRefPtr_T<IBuffer> buffer = g_pDefaultAlloctor->Alloc(1);
    EXPECT_EQ(buffer->SetUserData(0x1122334455667788), 0U);
    EXPECT_EQ(buffer->SetUserData(~uint64_t{0}), 0x1122334455667788U);
    EXPECT_EQ(buffer->GetUserData(), ~uint64_t{0});
}

TEST(MemBuffer, GetAllocatorAddsAReferenceForTheCaller) {
    const CRefPtr_T<IMemAlloctor> alloctor(new CMemAlloctorEx<CMemBuffer>);
    const CRefPtr_T<IBuffer> buffer = alloctor->Alloc(1);
    const CRefPtr_T<IMemAlloctor> seen = buffer->GetAllocator();
    EXPECT_EQ(seen, alloctor);
    EXPECT_EQ(alloctor->AddRef(), 4U);  // two of this test, the buffer's, and this one
    EXPECT_EQ(alloctor->Release(), 3);
}

TEST(MemBuffer, WithoutAnAllocatorReturnsNoneAndCannotResize) {
    char block[4];
    CMemBuffer buffer(nullptr, block, 4);
    EXPECT_EQ(buffer.GetAllocator(), nullptr);
    EXPECT_EQ(buffer.Resize(8), nullptr);
    EXPECT_EQ(buffer.GetCapacity(), 4U);
}

TEST(MemBuffer, HoldsAReferenceToTheAllocatorAndReleasesItAfterFreeingTheBlock) {
    RecordingAlloctor alloctor;
    auto* buffer = new CMemBuffer(&alloctor, nullptr, 0);
    EXPECT_EQ(alloctor.calls, (Calls{"AddRef"}));
    buffer->AddRef();
    EXPECT_EQ(buffer->Release(), 0);
    EXPECT_EQ(alloctor.calls, (Calls{"AddRef", "Free", "Release"}));
    EXPECT_EQ(alloctor.freed, static_cast<IBuffer*>(buffer));
}

TEST(MemBuffer, TheLastReleaseFreesBlockAndObjectAndDropsOneReferenceToTheAllocator) {
    const CRefPtr_T<IMemAlloctor> alloctor(new CMemAlloctorEx<CMemBuffer>);
    IBuffer* buffer = alloctor->Alloc(321).Detach();
    EXPECT_EQ(buffer->AddRef(), 2U);
    const void* block = buffer->GetData();
    const CallWatch watch;
    EXPECT_EQ(buffer->Release(), 1);
    EXPECT_EQ(watch.FreesOf(block), 0);
    EXPECT_EQ(buffer->Release(), 0);
    EXPECT_EQ(watch.FreesOf(block), 1);
    EXPECT_EQ(alloctor->AddRef(), 2U);
    EXPECT_EQ(alloctor->Release(), 1);
}

TEST(MemBuffer, HasOneCounterPairForBothInterfacePointers) {
    auto* buffer = new CMemBuffer(nullptr, nullptr, 0);
    // The counting base follows the interface base, at offset 16.
    auto* counting = reinterpret_cast<char*>(buffer) + 16;
    EXPECT_EQ((CallSlot<uint64_t>(buffer, 2)), 1U);
    EXPECT_EQ((CallSlot<uint64_t>(counting, 2)), 2U);
    EXPECT_EQ((CallSlot<int64_t>(counting, 3)), 1);
    EXPECT_EQ((CallSlot<int64_t>(counting, 3)), 0);
}

TEST(MemBuffer, KeepsItsFieldsInTheirOrder) {
    RecordingAlloctor alloctor;
    char block[9];
    auto* buffer = new CMemBuffer(&alloctor, block, 9);
    buffer->SetUserData(5);
    buffer->SetSize(7);
    EXPECT_EQ(ReadAt<uint64_t>(buffer, 8), 5U);  // user word
    EXPECT_EQ(ReadAt<int64_t>(buffer, 24), 0);   // reference count
    EXPECT_EQ(ReadAt<int64_t>(buffer, 32), 1);   // life count
    EXPECT_EQ(ReadAt<void*>(buffer, 40), static_cast<void*>(&alloctor));
    EXPECT_EQ(ReadAt<void*>(buffer, 48), static_cast<void*>(block));
    EXPECT_EQ(ReadAt<uint64_t>(buffer, 56), 7U);  // size
    EXPECT_EQ(ReadAt<uint64_t>(buffer, 64), 9U);  // capacity
    delete buffer;
}

TEST(MemBuffer, ImplementsEverySlotOfItsTable) {
    const CRefPtr_T<IMemAlloctor> alloctor(new CMemAlloctorEx<CMemBuffer>);
    const CRefPtr_T<IBuffer> owner = alloctor->Alloc(40);
    IBuffer* buffer = owner.Get();
    void* block = owner->GetData();
    EXPECT_EQ((CallSlot<uint64_t>(buffer, 2)), 2U);                 // AddRef
    EXPECT_EQ((CallSlot<int64_t>(buffer, 3)), 1);                   // Release
    EXPECT_EQ((CallSlot<void*>(buffer, 4)), block);                 // GetData
    EXPECT_EQ((CallSlot<uint64_t>(buffer, 6, uint64_t{50})), 40U);  // SetSize
    EXPECT_EQ((CallSlot<uint64_t>(buffer, 6, uint64_t{30})), 30U);
    EXPECT_EQ((CallSlot<uint64_t>(buffer, 5)), 30U);                       // GetSize
    EXPECT_EQ((CallSlot<uint64_t>(buffer, 7)), 40U);                       // GetCapacity
    EXPECT_EQ((CallSlot<uint64_t>(buffer, 8)), 40U);                       // GetAllocSize
    EXPECT_EQ((CallSlot<void*>(buffer, 9)), block);                        // GetAllocData
    EXPECT_EQ((CallSlot<CRefPtr_T<IMemAlloctor>>(buffer, 10)), alloctor);  // GetAllocator
    EXPECT_EQ(alloctor->AddRef(), 3U) << "the returned reference was released";
    EXPECT_EQ(alloctor->Release(), 2);
    block = CallSlot<void*>(buffer, 11, uint64_t{60});  // Resize
    EXPECT_EQ(owner->GetData(), block);
    EXPECT_EQ(owner->GetCapacity(), 60U);
    EXPECT_EQ((CallSlot<void*>(buffer, 12, static_cast<void*>(nullptr), uint64_t{0})), block);  // Attach
    EXPECT_EQ(owner->GetCapacity(), 0U);
    std::free(block);
    EXPECT_EQ((CallSlot<uint64_t>(buffer, 13, uint64_t{8})), 0U);  // SetUserData
    EXPECT_EQ((CallSlot<uint64_t>(buffer, 13, uint64_t{9})), 8U);
    EXPECT_EQ((CallSlot<uint64_t>(buffer, 14)), 9U);  // GetUserData
}

TEST(MemBuffer, MayBeReferencedAndReleasedOnAnyThread) {
    const CRefPtr_T<IMemAlloctor> alloctor(new CMemAlloctorEx<CMemBuffer>);
    std::vector<std::thread> threads;
    {
        const CRefPtr_T<IBuffer> buffer = CreateBuffer(alloctor.Get(), "shared", 6);
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([mine = buffer] {
                for (int round = 0; round < 2000; ++round) {
                    const CRefPtr_T<IBuffer> copy = mine;
                    EXPECT_EQ(std::memcmp(copy->GetData(), "shared", 6), 0);
                }
            });
        }
    }
    for (std::thread& each : threads) {
        each.join();
    }
    threads.clear();
    EXPECT_EQ(alloctor->AddRef(), 2U) << "the buffer is gone and has let its allocator go";
    EXPECT_EQ(alloctor->Release(), 1);
}

}  // namespace
}  // namespace zumod
