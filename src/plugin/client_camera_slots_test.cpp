// ClientCamera through its raw tables, as a host and a camera client written elsewhere see it.
#include <gtest/gtest.h>

#include "src/plugin/client_camera.h"
#include "tests/support/doubles/client_camera_double.h"
#include "tests/support/doubles/raw_slots.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/doubles/scripted_stream.h"

namespace zumod {
namespace {

using testing::Bytes;
using testing::CallSlot;
using testing::LogLine;
using testing::ScriptedStream;

class ClientCameraSlots : public testing::LoggingTest {
protected:
    ClientCameraSlots() { object->AddRef(); }

    std::vector<LogLine> NewLines() { return host.TakeLines(); }

    ClientCamera* object = new ClientCamera;
};

TEST_F(ClientCameraSlots, TheOwnTableHoldsEighteenOperationsInTheirOrder) {
    void* self = static_cast<CameraMessageSeparation*>(object);
    ASSERT_EQ(self, static_cast<void*>(object));
    NewLines();

    uint64_t entry_size = 0;
    const auto* table = CallSlot<const uint8_t*>(self, 2, &entry_size);
    EXPECT_EQ(entry_size, 32u);
    const uint8_t types[] = {10, 1, 3, 4, 8, 9};
    for (size_t i = 0; i < 6; ++i) {
        const uint8_t* entry = table + 32 * i;
        EXPECT_EQ(entry[0], types[i]);
        EXPECT_EQ(entry[8], 1);  // key count
    }
    EXPECT_EQ((Bytes{table + 192 + 16, table + 192 + 24}), Bytes(8, 0));  // an empty handler ends it

    // Entry 3 is close camera.
    const Bytes close_body = {9, 0, 0, 0};
    EXPECT_TRUE(
        (CallSlot<bool>(self, 3, uint64_t{3}, close_body.data(), 4ul, static_cast<IBuffer*>(nullptr))));
    EXPECT_EQ(NewLines(), (std::vector<LogLine>{{1, "[cameraclient] OnProtoCloseCamera id 9"}}));

    const Bytes close = {4, 0, 0, 0, 4, 0, 0, 0, 8, 0, 0, 0};
    EXPECT_TRUE((CallSlot<bool>(self, 4, close.data(), 12ul, static_cast<IBuffer*>(nullptr))));
    EXPECT_EQ(NewLines(), (std::vector<LogLine>{{1, "[cameraclient] OnProtoCloseCamera id 8"}}));

    void* out = this;
    EXPECT_EQ((CallSlot<uint64_t>(self, 5, "IClientCameraPlugin", &out)) & 0xFF, 0u);
    EXPECT_EQ(out, this);
    EXPECT_EQ((CallSlot<uint64_t>(self, 6, "key", static_cast<void*>(nullptr))) & 0xFF, 0u);
    EXPECT_EQ(CallSlot<uint64_t>(self, 7, "key"), 0u);
    CallSlot<void>(self, 8);

    EXPECT_EQ(CallSlot<uint64_t>(self, 9), 2u);
    EXPECT_EQ(CallSlot<int64_t>(self, 10), 1);

    EXPECT_FALSE(CallSlot<bool>(self, 13, 0u));
    for (int i = 0; i < 6; ++i) {
        CallSlot<void>(self, 11, 7u, "abc", 3ul);
    }
    EXPECT_TRUE(CallSlot<bool>(self, 13, 0u));

    CallSlot<void>(self, 12, 1u, "abc", 3ul);
    EXPECT_EQ(NewLines(), (std::vector<LogLine>{{2, "[cameraclient] OnAudioPacket ignored"}}));

    EXPECT_EQ(CallSlot<int>(self, 14, static_cast<IChannelStream*>(new ScriptedStream)), 0);
    EXPECT_EQ(ScriptedStream::Alive(), 1);
    EXPECT_EQ(CallSlot<int>(self, 15), 1);
    EXPECT_EQ(CallSlot<int>(self, 16), 0);
    EXPECT_EQ(CallSlot<int>(self, 17), 0);
    EXPECT_EQ(CallSlot<int64_t>(self, 10), 0);
    EXPECT_EQ(ScriptedStream::Alive(), 0);
}

TEST_F(ClientCameraSlots, TheHostsFaceHoldsTwelveOperationsInTheirOrder) {
    void* face = static_cast<IClientCameraPlugin*>(object);
    NewLines();
    EXPECT_EQ(CallSlot<uint64_t>(face, 2), 2u);
    EXPECT_EQ(CallSlot<int64_t>(face, 3), 1);
    EXPECT_EQ(CallSlot<int>(face, 4), 0);
    EXPECT_EQ(CallSlot<int>(face, 5, static_cast<IChannelStream*>(new ScriptedStream)), 0);
    EXPECT_EQ(ScriptedStream::Alive(), 1);
    EXPECT_EQ(CallSlot<int>(face, 6), 1);
    EXPECT_EQ(CallSlot<int>(face, 7), 0);
    EXPECT_EQ(CallSlot<int>(face, 8), 0);
    EXPECT_EQ(CallSlot<int>(face, 9), 0);
    EXPECT_EQ(NewLines(), (std::vector<LogLine>{{1, "[cameraclient] Run start"},
                                                {1, "[cameraclient] Run return"},
                                                {1, "[cameraclient] ExitInstance"},
                                                {8, "[cameraclient] start to clear devs"},
                                                {8, "[cameraclient] finish to clear devs"},
                                                {8, "[cameraclient] start to stop send thread"},
                                                {8, "[cameraclient] ExitInstance finish"}}));

    // The hidden return slot comes first, the object second; the slot's address is the result.
    void* returned = this;
    using ReturnsReference = void* (*)(void**, void*);
    const auto slot_10 = (*static_cast<ReturnsReference**>(face))[10];
    EXPECT_EQ(slot_10(&returned, face), &returned);
    EXPECT_EQ(returned, nullptr);
    CallSlot<void>(face, 11);
    EXPECT_EQ(CallSlot<int64_t>(face, 3), 0);
}

TEST_F(ClientCameraSlots, TheCameraClientsFaceHoldsItsThreeOperations) {
    void* face = static_cast<IClientCameraListenter*>(object);
    NewLines();
    EXPECT_EQ(CallSlot<uint64_t>(face, 2), 2u);
    EXPECT_EQ(CallSlot<int64_t>(face, 3), 1);
    for (int i = 0; i < 5; ++i) {
        CallSlot<void>(face, 4, 7u, "abc", 3ul);
    }
    EXPECT_FALSE(CallSlot<bool>(face, 6, 7u));
    CallSlot<void>(face, 4, 7u, "abc", 3ul);
    EXPECT_TRUE(CallSlot<bool>(face, 6, 7u));
    CallSlot<void>(face, 5, 7u, "abc", 3ul);
    EXPECT_EQ(NewLines(), (std::vector<LogLine>{{2, "[cameraclient] OnAudioPacket ignored"}}));
    EXPECT_EQ(CallSlot<int64_t>(face, 3), 0);
}

TEST_F(ClientCameraSlots, TheModuleInterfaceFaceAnswersNothing) {
    void* face = static_cast<IZUModInterface*>(object);
    void* out = this;
    EXPECT_FALSE(CallSlot<bool>(face, 4, "IClientCameraPlugin", &out));
    EXPECT_EQ(out, this);
    EXPECT_FALSE(CallSlot<bool>(face, 5, "key", static_cast<void*>(nullptr)));
    EXPECT_EQ(CallSlot<void*>(face, 6, "key"), nullptr);
    EXPECT_EQ(CallSlot<int64_t>(face, 3), 0);
}

}  // namespace
}  // namespace zumod
