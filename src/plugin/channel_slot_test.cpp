#include "src/plugin/channel_slot.h"

#include <gtest/gtest.h>

#include "tests/support/doubles/scripted_stream.h"

namespace zumod {
namespace {

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

TEST(ChannelSlot, TheDestructorReleasesTheStream) {
    {
        ChannelSlot slot;
        slot.Set(CRefPtr_T<IChannelStream>(new ScriptedStream));
    }
    EXPECT_EQ(ScriptedStream::Alive(), 0);
}

}  // namespace
}  // namespace zumod
