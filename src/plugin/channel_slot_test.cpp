#include "src/plugin/channel_slot.h"

#include <gtest/gtest.h>

#include "tests/support/doubles/scripted_stream.h"
#include "tests/support/watch/call_watch.h"

namespace zumod {
namespace {

using testing::CallWatch;
using testing::ScriptedStream;

TEST(ChannelSlot, IsEmptyAtFirst) {
    ChannelSlot slot;
    EXPECT_EQ(slot.Get(), nullptr);
    EXPECT_EQ(slot.Borrow(), nullptr);
    slot.Return();
}

TEST(ChannelSlot, HoldsOneReferenceAndReleasesItWhenReplaced) {
    ChannelSlot slot;
    slot.Set(CRefPtr_T<IChannelStream>(new ScriptedStream));
    EXPECT_EQ(ScriptedStream::Alive(), 1);
    slot.Set({});
    EXPECT_EQ(ScriptedStream::Alive(), 0);
}

TEST(ChannelSlot, ABorrowerTakesNoReference) {
    ChannelSlot slot;
    auto* stream = new ScriptedStream;
    slot.Set(CRefPtr_T<IChannelStream>(stream));
    const uint64_t before = stream->AddRefs();
    EXPECT_EQ(slot.Borrow(), stream);
    slot.Return();
    EXPECT_EQ(stream->AddRefs(), before);
}

TEST(ChannelSlot, AStreamReplacedWhileBorrowedLivesUntilItIsReturned) {
    ChannelSlot slot;
    slot.Set(CRefPtr_T<IChannelStream>(new ScriptedStream));
    slot.Borrow();
    slot.Set({});
    EXPECT_EQ(ScriptedStream::Alive(), 1);
    EXPECT_EQ(slot.Get(), nullptr);
    slot.Return();
    EXPECT_EQ(ScriptedStream::Alive(), 0);
}

TEST(ChannelSlot, AStreamSetAgainWhileBorrowedIsKept) {
    ChannelSlot slot;
    const CRefPtr_T<IChannelStream> stream(new ScriptedStream);
    slot.Set(stream);
    slot.Borrow();
    slot.Set({});
    slot.Set(stream);
    slot.Set({});
    slot.Set(stream);
    slot.Return();
    EXPECT_EQ(slot.Get(), stream);
}

TEST(ChannelSlot, EveryOperationHoldsTheLock) {
    ChannelSlot slot;
    // The lock is the first field; its mutex follows the table pointer.
    const uintptr_t mutex = reinterpret_cast<uintptr_t>(&slot) + 8;
    const CallWatch watch;
    slot.Set({});
    EXPECT_EQ(watch.Count(CallWatch::pthread_mutex_lock, mutex), 1);
    slot.Get();
    EXPECT_EQ(watch.Count(CallWatch::pthread_mutex_lock, mutex), 2);
    slot.Borrow();
    EXPECT_EQ(watch.Count(CallWatch::pthread_mutex_lock, mutex), 3);
    slot.Return();
    EXPECT_EQ(watch.Count(CallWatch::pthread_mutex_lock, mutex), 4);
    EXPECT_EQ(watch.Count(CallWatch::pthread_mutex_unlock, mutex), 4);
}

TEST(ChannelSlot, TheDestructorReleasesTheStream) {
    {
        ChannelSlot slot;
        slot.Set(CRefPtr_T<IChannelStream>(new ScriptedStream));
    }
    EXPECT_EQ(ScriptedStream::Alive(), 0);
}

}  // namespace
}  // namespace zumod
