#include "zumod/reference.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/support/doubles/raw_slots.h"
#include "tests/support/watch/single_step.h"
#include "zumod/mod_interface.h"
#include "zumod/ref_ptr.h"

namespace zumod {
namespace {

using testing::CallSlot;

// Counts how often it is destroyed.
class Counted : public CReference {
public:
    explicit Counted(int& destroyed) : m_destroyed(destroyed) {}
    ~Counted() override { ++m_destroyed; }

private:
    int& m_destroyed;
};

int64_t SignedWordAt(const void* object, size_t offset) {
    int64_t word = 0;
    std::memcpy(&word, static_cast<const char*>(object) + offset, sizeof word);
    return word;
}

TEST(Reference, TheFirstAddRefOfANewObjectReturnsOneAndTheSecondTwo) {
    int destroyed = 0;
    auto* object = new Counted(destroyed);
    EXPECT_EQ(object->AddRef(), 1U);
    EXPECT_EQ(object->AddRef(), 2U);
    EXPECT_EQ(object->Release(), 1);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(object->Release(), 0);
    EXPECT_EQ(destroyed, 1);
}

TEST(Reference, AReleaseOfANewObjectOnlyTakesTheCountToMinusOne) {
    int destroyed = 0;
    auto* object = new Counted(destroyed);
    EXPECT_EQ(object->Release(), -1);
    EXPECT_EQ(object->Release(), -2);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(object->AddRef(), ~uint64_t{0});
    EXPECT_EQ(object->AddRef(), 0U);
    EXPECT_EQ(object->AddRef(), 1U);
    EXPECT_EQ(object->Release(), 0);
    EXPECT_EQ(destroyed, 1);
}

TEST(Reference, AReferenceAddedAndDroppedDuringTheDestructionDoesNotDestroyTwice) {
    class Resurrected : public CReference {
    public:
        explicit Resurrected(int& destroyed) : m_destroyed(destroyed) {}
        ~Resurrected() override {
            ++m_destroyed;
            EXPECT_EQ(AddRef(), 1U);
            EXPECT_EQ(Release(), 0);
        }

    private:
        int& m_destroyed;
    };
    int destroyed = 0;
    auto* object = new Resurrected(destroyed);
    object->AddRef();
    object->Release();
    EXPECT_EQ(destroyed, 1);
}

TEST(Reference, StoresTheReferenceCountAndTheLifeCountAfterItsTablePointer) {
    int destroyed = 0;
    auto* object = new Counted(destroyed);
    EXPECT_EQ(SignedWordAt(object, 8), 0);
    EXPECT_EQ(SignedWordAt(object, 16), 1);
    object->AddRef();
    object->AddRef();
    EXPECT_EQ(SignedWordAt(object, 8), 2);
    EXPECT_EQ(SignedWordAt(object, 16), 1);
    object->Release();
    object->Release();
}

TEST(Reference, IsReachedThroughSlotsTwoAndThree) {
    int destroyed = 0;
    IReference* object = new Counted(destroyed);
    EXPECT_EQ((CallSlot<uint64_t>(object, 2)), 1U);
    EXPECT_EQ((CallSlot<uint64_t>(object, 2)), 2U);
    EXPECT_EQ((CallSlot<int64_t>(object, 3)), 1);
    EXPECT_EQ((CallSlot<int64_t>(object, 3)), 0);
    EXPECT_EQ(destroyed, 1);
}

TEST(Reference, ItsDestructorPairIsInSlotsZeroAndOne) {
    int destroyed = 0;
    alignas(Counted) unsigned char storage[sizeof(Counted)];
    CallSlot<>(new (storage) Counted(destroyed), 0);  // the complete destructor does not free the memory
    EXPECT_EQ(destroyed, 1);
    CallSlot<>(new Counted(destroyed), 1);  // the deleting destructor frees it
    EXPECT_EQ(destroyed, 2);
}

#if ZU_CAN_SINGLE_STEP
TEST(Reference, ChangesEachOfItsCountsWithOneLockedInstruction) {
    using testing::ChangesOf;
    using testing::NumberChanges;
    // Its memory outlives it, so that the counts can be read after the destruction.
    struct Kept : CReference {
        static void operator delete(void*) {}
    };
    alignas(Kept) static unsigned char storage[sizeof(Kept)];
    auto* object = new (storage) Kept;
    const auto references = [] { return SignedWordAt(storage, 8); };
    const auto lives = [] { return SignedWordAt(storage, 16); };
    const NumberChanges one_locked{1, 0};
    const NumberChanges none{0, 0};
    EXPECT_EQ(ChangesOf(references, [&] { object->AddRef(); }), one_locked);
    object->AddRef();
    EXPECT_EQ(ChangesOf(references, [&] { object->Release(); }), one_locked);
    EXPECT_EQ(ChangesOf(lives, [&] { object->AddRef(); }), none);
    EXPECT_EQ(ChangesOf(lives, [&] { object->Release(); }), none);
    EXPECT_EQ(ChangesOf(lives, [&] { object->Release(); }), one_locked) << "the last reference";
    EXPECT_EQ(references(), 0);
    EXPECT_EQ(lives(), 0);
}
#endif

TEST(Reference, UsedBySeveralThreadsIsDestroyedOnceByTheLastRelease) {
    int destroyed = 0;
    auto* object = new Counted(destroyed);
    object->AddRef();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([mine = CRefPtr_T<Counted>(object)]() mutable {
            for (int round = 0; round < 5000; ++round) {
                CRefPtr_T<Counted> copy = mine;
                const CRefPtr_T<IReference> another = copy;
            }
            mine = nullptr;
        });
    }
    EXPECT_GT(object->Release(), -1);  // from here on only the threads hold references
    for (std::thread& each : threads) {
        each.join();
    }
    EXPECT_EQ(destroyed, 1);
}

// Two interfaces that redeclare AddRef and Release, as those of the SDK do.
class ISmall : public virtual IReference {
public:
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;
    virtual int Number() = 0;
};
class IPair : public virtual IReference, public virtual ISmall {
public:
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;
};

class Pair final : public CCounted_T<IPair> {
public:
    explicit Pair(int& destroyed) : m_destroyed(destroyed) {}
    ~Pair() override { ++m_destroyed; }
    int Number() override { return 7; }

private:
    int& m_destroyed;
};

TEST(Counted, ImplementsTheCountOfAnInterfaceThroughEachOfItsTables) {
    int destroyed = 0;
    auto* object = new Pair(destroyed);
    EXPECT_EQ((CallSlot<uint64_t>(static_cast<IPair*>(object), 2)), 1U);
    EXPECT_EQ((CallSlot<uint64_t>(static_cast<ISmall*>(object), 2)), 2U);
    EXPECT_EQ((CallSlot<int>(static_cast<ISmall*>(object), 4)), 7);
    EXPECT_EQ((CallSlot<int64_t>(static_cast<IReference*>(object), 3)), 1);
    EXPECT_EQ((CallSlot<int64_t>(static_cast<ISmall*>(object), 3)), 0);
    EXPECT_EQ(destroyed, 1);
}

TEST(Counted, HasOneReferenceBaseAndAddsOnlyItsTwoCountersToTheInterface) {
    EXPECT_TRUE((std::is_convertible_v<Pair*, IReference*>));
    EXPECT_TRUE((std::is_same_v<CReference, CCounted_T<IReference>>));
    EXPECT_EQ(sizeof(CCounted_T<ISmall>), sizeof(ISmall) + 16);
}

// An object with the interface IZUModInterface as a second base, so that the pointers differ.
class Created final : public ISmall, public CCounted_T<IZUModInterface> {
public:
    explicit Created(int& destroyed) : m_destroyed(destroyed) {}
    ~Created() override { ++m_destroyed; }
    uint64_t AddRef() override { return CCounted_T::AddRef(); }
    int64_t Release() override { return CCounted_T::Release(); }
    int Number() override { return 9; }
    bool QueryInterface(const char*, void**) override { return false; }
    bool SetProperty(const char*, IZUModData*) override { return false; }
    IZUModData* GetProperty(const char*) override { return nullptr; }

private:
    int& m_destroyed;
};

TEST(StoreInterface, StoresThePointerOfTheNamedInterfaceWithOneReference) {
    int destroyed = 0;
    auto* object = new Created(destroyed);
    IZUModInterface* out = nullptr;
    StoreInterface<ISmall>(object, &out);
    EXPECT_EQ(static_cast<void*>(out), static_cast<void*>(static_cast<ISmall*>(object)));
    EXPECT_EQ((CallSlot<int>(out, 4)), 9);
    EXPECT_EQ(object->AddRef(), 2U);
    object->Release();
    {
        const CRefPtr_T<ISmall> taken = TakeInterface<ISmall>(out);
        EXPECT_EQ(taken->Number(), 9);
        EXPECT_EQ(taken->AddRef(), 2U) << "taking adds no reference";
        taken->Release();
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(StoreInterface, ThePointerThatIsTakenIsEmptyForNull) {
    EXPECT_EQ(TakeInterface<ISmall>(nullptr), nullptr);
}

TEST(RefPtr, IsOnePointerWide) {
    int destroyed = 0;
    const CRefPtr_T<Counted> owner(new Counted(destroyed));
    static_assert(sizeof owner == sizeof(void*));
    EXPECT_EQ(SignedWordAt(&owner, 0), reinterpret_cast<intptr_t>(owner.Get()));
}

TEST(RefPtr, AddsTheFirstReferenceToANewObjectAndReleasesItWhenDestroyed) {
    int destroyed = 0;
    {
        const CRefPtr_T<Counted> owner(new Counted(destroyed));
        EXPECT_EQ(SignedWordAt(owner.Get(), 8), 1);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(RefPtr, AddsNoReferenceWhenItAdopts) {
    int destroyed = 0;
    auto* object = new Counted(destroyed);
    object->AddRef();
    const auto owner = CRefPtr_T<Counted>::Adopt(object);
    EXPECT_EQ(SignedWordAt(object, 8), 1);
}

TEST(RefPtr, AddsAReferenceWithEachCopyAndNoneWithAMove) {
    int destroyed = 0;
    CRefPtr_T<Counted> first(new Counted(destroyed));
    const void* object = first.Get();
    CRefPtr_T<Counted> second = first;
    EXPECT_EQ(SignedWordAt(object, 8), 2);
    const CRefPtr_T<IReference> third = first;
    EXPECT_EQ(SignedWordAt(object, 8), 3);
    const CRefPtr_T<Counted> moved = std::move(second);
    const CRefPtr_T<IReference> moved_up = std::move(first);
    EXPECT_EQ(SignedWordAt(object, 8), 3);
    EXPECT_EQ(moved_up.Get(), moved.Get());
}

TEST(RefPtr, ReleasesTheOldObjectWhenAssignedAnother) {
    int first_destroyed = 0;
    int second_destroyed = 0;
    CRefPtr_T<Counted> owner(new Counted(first_destroyed));
    const CRefPtr_T<Counted> other(new Counted(second_destroyed));
    owner = other;
    EXPECT_EQ(first_destroyed, 1);
    EXPECT_EQ(SignedWordAt(other.Get(), 8), 2);
    owner = nullptr;
    EXPECT_EQ(SignedWordAt(other.Get(), 8), 1);
    EXPECT_EQ(second_destroyed, 0);
}

TEST(RefPtr, SurvivesSelfAssignment) {
    int destroyed = 0;
    CRefPtr_T<Counted> owner(new Counted(destroyed));
    CRefPtr_T<Counted>& same = owner;
    owner = same;
    owner = std::move(same);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(SignedWordAt(owner.Get(), 8), 1);
}

TEST(RefPtr, DetachPassesItsReferenceToTheCaller) {
    int destroyed = 0;
    Counted* object = nullptr;
    {
        CRefPtr_T<Counted> owner(new Counted(destroyed));
        object = owner.Detach();
        EXPECT_EQ(owner, nullptr);
    }
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(object->Release(), 0);
}

TEST(RefPtr, IsEmptyByDefaultAndComparesEqualToNull) {
    const CRefPtr_T<Counted> none;
    int destroyed = 0;
    const CRefPtr_T<Counted> some(new Counted(destroyed));
    const CRefPtr_T<Counted> same = some;
    EXPECT_FALSE(none);
    EXPECT_TRUE(none == nullptr);
    EXPECT_EQ(none.Get(), nullptr);
    EXPECT_TRUE(some);
    EXPECT_TRUE(some != nullptr);
    EXPECT_TRUE(some == same);
    EXPECT_TRUE(some != none);
    EXPECT_EQ(CRefPtr_T<Counted>(static_cast<Counted*>(nullptr)), nullptr);
}

TEST(RefPtr, ConvertsToAnOwnerOfABaseOnly) {
    EXPECT_TRUE((std::is_convertible_v<CRefPtr_T<Counted>, CRefPtr_T<IReference>>));
    EXPECT_TRUE((std::is_convertible_v<const CRefPtr_T<Counted>&, CRefPtr_T<IReference>>));
    EXPECT_FALSE((std::is_constructible_v<CRefPtr_T<Counted>, CRefPtr_T<IReference>>));
    EXPECT_FALSE((std::is_constructible_v<CRefPtr_T<Counted>, const CRefPtr_T<IReference>&>));
    EXPECT_FALSE((std::is_convertible_v<Counted*, CRefPtr_T<Counted>>));
}

}  // namespace
}  // namespace zumod
