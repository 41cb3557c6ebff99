#include "src/bridge/venc_args.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "src/base/create_buffer.h"
#include "src/base/mem_buffer.h"
#include "tests/support/doubles/raw_slots.h"
#include "tests/support/doubles/turkish_strcasecmp.h"

namespace zumod {
namespace {

using testing::CallSlot;

// One reference count, which is reached only through the interfaces.
static_assert(std::is_convertible_v<CVEncArgs*, IVEncArgs*>);
static_assert(std::is_base_of_v<CReference, CVEncArgs> && !std::is_convertible_v<CVEncArgs*, CReference*>);
using Events = std::vector<std::string>;

// Records what happens to its buffers and to itself.
class RecordingAlloctor final : public IMemAlloctor {
public:
    explicit RecordingAlloctor(Events& events) : m_events(events) {}

    uint64_t AddRef() override { return static_cast<uint64_t>(++references); }
    int64_t Release() override {
        if (--references == 0) {
            m_events.emplace_back("allocator released");
        }
        return references;
    }
    CRefPtr_T<IBuffer> Alloc(uint64_t size) override {
        m_events.push_back("alloc " + std::to_string(size));
        if (throws) {
            throw std::bad_alloc();
        }
        const uint64_t capacity = size + spare;
        return empty ? nullptr : CRefPtr_T<IBuffer>(new CMemBuffer(this, std::malloc(capacity), capacity));
    }
    bool Free(IBuffer* buffer) override {
        m_events.emplace_back("free");
        references_at_free = references;
        std::free(buffer->GetAllocData());
        return true;
    }
    uint64_t GetMaxSize() override { return ~uint64_t{0}; }
    void* ReAlloc(IBuffer* buffer, uint64_t size) override {
        m_events.push_back("realloc " + std::to_string(size));
        if (empty) {
            return nullptr;
        }
        void* block = std::realloc(buffer->GetAllocData(), size);
        buffer->Attach(block, size);
        return block;
    }
    CRefPtr_T<IBuffer> AllocBuffer(uint64_t size) override { return Alloc(size); }

    int64_t references = 0;
    int64_t references_at_free = 0;
    bool empty = false;
    bool throws = false;
    // Extra capacity of a buffer beyond the requested size.
    uint64_t spare = 0;

private:
    Events& m_events;
};

class VEncArgsTest : public ::testing::Test {
protected:
    const std::string picture = "picture";
    Events events;
    RecordingAlloctor alloctor{events};
    CRefPtr_T<CVEncArgs> args{new CVEncArgs(picture.data(), picture.size())};
};

TEST_F(VEncArgsTest, NewArgumentsHaveACountOfZero) {
    auto* fresh = new CVEncArgs(nullptr, 0);
    EXPECT_EQ(fresh->AddRef(), 1U);
    EXPECT_EQ(fresh->Release(), 0);
}

TEST_F(VEncArgsTest, ThePictureIsNotCopied) {
    EXPECT_EQ(args->GetInputData(), picture.data());
    EXPECT_EQ(args->GetInputSize(), 7U);
}

TEST_F(VEncArgsTest, OptionsAndFlagsAreZero) {
    EXPECT_EQ(args->GetArgOption(), 0U);
    EXPECT_EQ(args->GetArgFlags(), 0U);
}

TEST_F(VEncArgsTest, BeforeThereIsAnOutputItIsNullAndEmpty) {
    EXPECT_EQ(args->GetOutputData(), nullptr);
    EXPECT_EQ(args->GetOutputSize(), 0U);
}

TEST_F(VEncArgsTest, TheOutputHoldsWhatWasPrepared) {
    EXPECT_EQ(args->PrepareOutput(100), 100U);
    ASSERT_NE(args->GetOutputData(), nullptr);
    std::memset(args->GetOutputData(), 0x5a, 100);
    EXPECT_EQ(args->GetOutputSize(), 100U);
}

TEST_F(VEncArgsTest, PreparingTwiceResizesTheOneOutput) {
    const CRefPtr_T<CVEncArgs> own(new CVEncArgs(nullptr, 0, &alloctor));
    EXPECT_EQ(own->PrepareOutput(100), 100U);
    static_cast<char*>(own->GetOutputData())[49] = 'x';
    EXPECT_EQ(own->PrepareOutput(50), 50U);
    EXPECT_EQ(own->GetOutputSize(), 50U);
    EXPECT_EQ(static_cast<char*>(own->GetOutputData())[49], 'x');
    EXPECT_EQ(own->PrepareOutput(200), 200U);
    EXPECT_EQ(events, (Events{"alloc 100", "realloc 50", "realloc 200"}));
}

TEST_F(VEncArgsTest, TheOutputsSizeIsThePreparedSizeAndNotTheCapacity) {
    const CRefPtr_T<CVEncArgs> own(new CVEncArgs(nullptr, 0, &alloctor));
    alloctor.spare = 28;
    EXPECT_EQ(own->PrepareOutput(100), 100U);
    EXPECT_EQ(own->GetOutputSize(), 100U);
}

TEST_F(VEncArgsTest, AnOutputOfNoBytesCanBePrepared) {
    EXPECT_EQ(args->PrepareOutput(0), 0U);
    EXPECT_EQ(args->GetOutputData(), nullptr);
    EXPECT_EQ(args->GetOutputSize(), 0U);
    EXPECT_EQ(args->PrepareOutput(10), 10U);
    EXPECT_EQ(args->PrepareOutput(0), 0U);
    EXPECT_EQ(args->GetOutputSize(), 0U);
}

TEST_F(VEncArgsTest, AnOutputThatCannotGrowKeepsItsSize) {
    const CRefPtr_T<CVEncArgs> own(new CVEncArgs(nullptr, 0, &alloctor));
    own->PrepareOutput(100);
    alloctor.empty = true;
    EXPECT_EQ(own->PrepareOutput(200), 100U);
    EXPECT_EQ(own->GetOutputSize(), 100U);
}

TEST_F(VEncArgsTest, AnAllocatorThatReturnsNullLeavesNoOutput) {
    const CRefPtr_T<CVEncArgs> own(new CVEncArgs(nullptr, 0, &alloctor));
    alloctor.empty = true;
    EXPECT_EQ(own->PrepareOutput(100), 0U);
    EXPECT_EQ(own->GetOutputData(), nullptr);
    EXPECT_EQ(own->GetOutputSize(), 0U);
}

TEST_F(VEncArgsTest, AnAllocatorThatThrowsBadAllocLeavesNoOutput) {
    const CRefPtr_T<CVEncArgs> own(new CVEncArgs(nullptr, 0, &alloctor));
    alloctor.throws = true;
    EXPECT_EQ(own->PrepareOutput(100), 0U);
    EXPECT_EQ(own->GetOutputData(), nullptr);
    alloctor.throws = false;
    EXPECT_EQ(own->PrepareOutput(100), 100U);
}

TEST_F(VEncArgsTest, WithoutAnyAllocatorThereIsNoOutput) {
    const CRefPtr_T<IMemAlloctor> none = std::exchange(g_pDefaultAlloctor, nullptr);
    EXPECT_EQ(args->PrepareOutput(100), 0U);
    EXPECT_EQ(args->GetOutputData(), nullptr);
    g_pDefaultAlloctor = none;
}

TEST_F(VEncArgsTest, WithoutAnAllocatorTheDefaultOneIsUsed) {
    const uint64_t before = g_pDefaultAlloctor->AddRef();
    args->PrepareOutput(100);
    // One more reference: the output's.
    EXPECT_EQ(g_pDefaultAlloctor->AddRef(), before + 2);
    args = nullptr;
    g_pDefaultAlloctor->Release();
    EXPECT_EQ(g_pDefaultAlloctor->Release(), static_cast<int64_t>(before) - 1);
}

TEST_F(VEncArgsTest, TheLastReleaseFreesTheOutputOnceAndThenTheAllocator) {
    CRefPtr_T<CVEncArgs> own(new CVEncArgs(nullptr, 0, &alloctor));
    EXPECT_EQ(alloctor.references, 1);
    own->PrepareOutput(100);
    EXPECT_EQ(alloctor.references, 2);
    events.clear();
    own = nullptr;
    EXPECT_EQ(events, (Events{"free", "allocator released"}));
    // The references of the buffer and of the arguments.
    EXPECT_EQ(alloctor.references_at_free, 2);
    EXPECT_EQ(alloctor.references, 0);
}

TEST_F(VEncArgsTest, ResettingChangesNothing) {
    args->PrepareOutput(100);
    void* const data = args->GetOutputData();
    args->ResetArgs();
    EXPECT_EQ(args->GetInputData(), picture.data());
    EXPECT_EQ(args->GetInputSize(), 7U);
    EXPECT_EQ(args->GetOutputData(), data);
    EXPECT_EQ(args->GetOutputSize(), 100U);
}

TEST_F(VEncArgsTest, QueryInterfaceAcceptsTheNameInAnyLetterCase) {
    for (const char* name : {"IVEncArgs", "ivencargs", "IVENCARGS"}) {
        void* out = nullptr;
        EXPECT_TRUE(args->QueryInterface(name, &out));
        EXPECT_EQ(out, static_cast<IVEncArgs*>(args.Get()));
        EXPECT_EQ(args->Release(), 1);
    }
}

TEST_F(VEncArgsTest, QueryInterfaceIgnoresTheLetterCaseInATurkishLocaleToo) {
    ASSERT_NE(strcasecmp("ivencargs", "IVEncArgs"), 0);
    void* out = nullptr;
    ASSERT_TRUE(args->QueryInterface("ivencargs", &out));
    EXPECT_EQ(out, static_cast<IVEncArgs*>(args.Get()));
    EXPECT_EQ(args->Release(), 1);
}

TEST_F(VEncArgsTest, AnotherNameIsRefusedAndTheOutPointerUnchanged) {
    for (const char* name : {"IVEncoder", "", "IVEncArg", "IVEncArgs2", "IReference"}) {
        void* out = &events;
        EXPECT_FALSE(args->QueryInterface(name, &out)) << name;
        EXPECT_EQ(out, &events);
    }
    EXPECT_EQ(args->AddRef(), 2U);
    args->Release();
}

TEST_F(VEncArgsTest, ANullNameOrOutPointerIsRefused) {
    void* out = &events;
    EXPECT_FALSE(args->QueryInterface(nullptr, &out));
    EXPECT_EQ(out, &events);
    EXPECT_FALSE(args->QueryInterface("IVEncArgs", nullptr));
    EXPECT_EQ(args->AddRef(), 2U);
    args->Release();
}

// Slots 2 to 11 are the same in the vtable of IVEncArgs and in that of the class.
void ExpectSlotsOfEncArgs(const void* raw, const std::string& picture) {
    EXPECT_EQ((CallSlot<uint64_t>(raw, 2)), 2U);
    EXPECT_EQ((CallSlot<int64_t>(raw, 3)), 1);
    EXPECT_EQ((CallSlot<uint64_t>(raw, 4)), 0U);
    EXPECT_EQ((CallSlot<const void*>(raw, 5)), picture.data());
    EXPECT_EQ((CallSlot<uint64_t>(raw, 6)), picture.size());
    EXPECT_EQ((CallSlot<uint64_t>(raw, 7)), 0U);
    EXPECT_EQ((CallSlot<void*>(raw, 10)), nullptr);
    EXPECT_EQ((CallSlot<uint64_t>(raw, 11)), 0U);
    EXPECT_EQ((CallSlot<uint64_t, uint32_t>(raw, 9, 20)), 20U);
    CallSlot<void>(raw, 8);
    EXPECT_NE((CallSlot<void*>(raw, 10)), nullptr);
    EXPECT_EQ((CallSlot<uint64_t>(raw, 11)), 20U);
}

TEST_F(VEncArgsTest, TheSlotsOfIVEncArgs) {
    ExpectSlotsOfEncArgs(static_cast<IVEncArgs*>(args.Get()), picture);
}

TEST_F(VEncArgsTest, TheSlotsOfTheClass) {
    const void* raw = args.Get();
    ExpectSlotsOfEncArgs(raw, picture);
    void* out = nullptr;
    EXPECT_TRUE((CallSlot<bool, const char*, void**>(raw, 12, "IVEncArgs", &out)));
    EXPECT_EQ(out, static_cast<IVEncArgs*>(args.Get()));
    EXPECT_EQ((CallSlot<int64_t>(out, 3)), 1);
    EXPECT_TRUE((CallSlot<bool>(raw, 13)));
    EXPECT_EQ((CallSlot<uint64_t>(raw, 14)), 0U);
}

TEST_F(VEncArgsTest, TheLastReleaseThroughIVEncArgsDestroysTheObject) {
    auto* own = CRefPtr_T<CVEncArgs>(new CVEncArgs(nullptr, 0, &alloctor)).Detach();
    own->PrepareOutput(100);
    EXPECT_EQ((CallSlot<int64_t>(static_cast<IVEncArgs*>(own), 3)), 0);
    EXPECT_EQ(alloctor.references, 0);
}

}  // namespace
}  // namespace zumod
