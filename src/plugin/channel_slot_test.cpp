#include "src/plugin/channel_slot.h"

#include <gtest/gtest.h>

#include "tests/support/doubles/scripted_stream.h"

namespace zumod {
namespace {

using testing::ScriptedStream;

TEST(ChannelSlot, HoldsNothingAtFirst) {
    ChannelSlot slot;
    EXPECT_EQ(slot.Get(), nullptr);
    EXPECT_EQ(slot.Borrow(), nullptr);
    slot.Return();
}

TEST(ChannelSlot, HoldsOneReferenceAndGivesItBackWhenReplaced) {
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

TEST(ChannelSlot, AStreamReplacedWhileItIsBorrowedLivesUntilItIsGivenBack) {
    ChannelSlot slot;
    slot.Set(CRefPtr_T<IChannelStream>(new ScriptedStream));
    slot.Borrow();
    slot.Set({});
    EXPECT_EQ(ScriptedStream::Alive(), 1);
    EXPECT_EQ(slot.Get(), nullptr);
    slot.Return();
    EXPECT_EQ(ScriptedStream::Alive(), 0);
}

TEST(ChannelSlot, AStreamSetAgainWhileItIsBorrowedIsKept) {
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

TEST(ChannelSlot, ItsEndReleasesTheStream) {
    {
        ChannelSlot slot;
        slot.Set(CRefPtr_T<IChannelStream>(new ScriptedStream));
    }
    EXPECT_EQ(ScriptedStream::Alive(), 0);
}

}  // namespace
}  // namespace zumod
