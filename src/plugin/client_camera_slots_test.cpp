// ClientCamera called through the vtable slots of each interface, as a host and a camera call it.
#include <gtest/gtest.h>

#include <cstring>
#include <new>

#include "src/plugin/client_camera.h"
#include "tests/support/doubles/client_camera_double.h"
#include "tests/support/doubles/raw_slots.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/doubles/scripted_stream.h"
#include "tests/support/wire/camera_messages.h"

namespace zumod {
namespace {

using testing::Bytes;
using testing::CallSlot;
using testing::CloseBytes;
using testing::LogLine;
using testing::ScriptedStream;
using Lines = std::vector<LogLine>;

class ClientCameraSlots : public testing::LoggingTest {
protected:
    ClientCameraSlots() { host.TakeLines(); }

    // Releases the only reference through this slot, which must be the last Release.
    void ExpectLastRelease(void* raw, size_t slot) {
        static_cast<void>(plugin.Detach());
        EXPECT_EQ(CallSlot<int64_t>(raw, slot), 0);
        EXPECT_EQ(host.Lines(),
                  (Lines{{1, "[cameraclient] destroy"}, {8, "[cameraclient] finish to clear devs"}}));
        EXPECT_EQ(ScriptedStream::Alive(), 0);
    }

    CRefPtr_T<ClientCamera> plugin{new ClientCamera};
    // The object's own vtable is that of its first base.
    void* const self = static_cast<CameraMessageSeparation*>(plugin.Get());
};

TEST_F(ClientCameraSlots, TheFirstBaseIsAtTheAddressOfTheObject) {
    EXPECT_EQ(self, static_cast<void*>(plugin.Get()));
}

// ---- The object's own vtable, slots 2 to 17

TEST_F(ClientCameraSlots, Slot2IsTheDispatchTable) {
    uint64_t entry_size = 0;
    const auto* table = CallSlot<const uint8_t*>(self, 2, &entry_size);
    EXPECT_EQ(entry_size, 32u);
    const uint8_t types[] = {10, 1, 3, 4, 8, 9};
    for (size_t i = 0; i < 6; ++i) {
        const uint8_t* entry = table + 32 * i;
        EXPECT_EQ(entry[0], types[i]);
        EXPECT_EQ(entry[8], 1);  // key count
    }
    EXPECT_EQ((Bytes{table + 192 + 16, table + 192 + 24}), Bytes(8, 0));  // a null handler ends the table
}

TEST_F(ClientCameraSlots, Slots3And4CallAHandlerByItsIndexAndByItsMessage) {
    // Entry 3 is close camera.
    const Bytes close_body = {9, 0, 0, 0};
    EXPECT_TRUE(
        (CallSlot<bool>(self, 3, uint64_t{3}, close_body.data(), 4ul, static_cast<IBuffer*>(nullptr))));
    EXPECT_EQ(host.TakeLines(), (Lines{{1, "[cameraclient] OnProtoCloseCamera id 9"}}));

    const Bytes close = CloseBytes(8);
    EXPECT_TRUE((CallSlot<bool>(self, 4, close.data(), 12ul, static_cast<IBuffer*>(nullptr))));
    EXPECT_EQ(host.TakeLines(), (Lines{{1, "[cameraclient] OnProtoCloseCamera id 8"}}));
}

TEST_F(ClientCameraSlots, Slots5To8AreTheDefaultsOfTheModuleInterface) {
    void* out = this;
    EXPECT_EQ((CallSlot<uint64_t>(self, 5, "IClientCameraPlugin", &out)) & 0xFF, 0u);
    EXPECT_EQ(out, this);
    EXPECT_EQ((CallSlot<uint64_t>(self, 6, "key", static_cast<void*>(nullptr))) & 0xFF, 0u);
    EXPECT_EQ(CallSlot<uint64_t>(self, 7, "key"), 0u);
    CallSlot<void>(self, 8);
}

TEST_F(ClientCameraSlots, Slots9And10AreTheReferenceCount) {
    EXPECT_EQ(CallSlot<uint64_t>(self, 9), 2u);
    EXPECT_EQ(CallSlot<int64_t>(self, 10), 1);
    plugin->SetChannelStream(new ScriptedStream);
    ExpectLastRelease(self, 10);
}

TEST_F(ClientCameraSlots, Slots11To13AreTheListenersOperations) {
    EXPECT_FALSE(CallSlot<bool>(self, 13, 0u));
    for (int i = 0; i < 6; ++i) {
        CallSlot<void>(self, 11, 7u, "abc", 3ul);
    }
    EXPECT_TRUE(CallSlot<bool>(self, 13, 0u));

    CallSlot<void>(self, 12, 1u, "abc", 3ul);
    EXPECT_EQ(host.TakeLines(), (Lines{{2, "[cameraclient] OnAudioPacket ignored"}}));
}

TEST_F(ClientCameraSlots, Slots14To17AreThePluginsOperations) {
    EXPECT_EQ(CallSlot<int>(self, 14, static_cast<IChannelStream*>(new ScriptedStream)), 0);
    EXPECT_EQ(ScriptedStream::Alive(), 1);
    EXPECT_EQ(CallSlot<int>(self, 15), 1);
    EXPECT_EQ(CallSlot<int>(self, 16), 0);
    EXPECT_EQ(CallSlot<int>(self, 17), 0);
    plugin = nullptr;
    EXPECT_EQ(ScriptedStream::Alive(), 0);
}

// ---- The interfaces

TEST_F(ClientCameraSlots, TheSlotsOfIClientCameraPlugin) {
    void* raw = static_cast<IClientCameraPlugin*>(plugin.Get());
    EXPECT_EQ(CallSlot<uint64_t>(raw, 2), 2u);
    EXPECT_EQ(CallSlot<int64_t>(raw, 3), 1);
    EXPECT_EQ(CallSlot<int>(raw, 4), 0);
    EXPECT_EQ(CallSlot<int>(raw, 5, static_cast<IChannelStream*>(new ScriptedStream)), 0);
    EXPECT_EQ(ScriptedStream::Alive(), 1);
    EXPECT_EQ(CallSlot<int>(raw, 6), 1);
    EXPECT_EQ(CallSlot<int>(raw, 7), 0);
    EXPECT_EQ(CallSlot<int>(raw, 8), 0);
    EXPECT_EQ(CallSlot<int>(raw, 9), 0);
    EXPECT_EQ(host.TakeLines(), (Lines{{1, "[cameraclient] Run start"},
                                       {1, "[cameraclient] Run return"},
                                       {1, "[cameraclient] ExitInstance"},
                                       {8, "[cameraclient] start to clear devs"},
                                       {8, "[cameraclient] finish to clear devs"},
                                       {8, "[cameraclient] start to stop send thread"},
                                       {8, "[cameraclient] ExitInstance finish"}}));

    // Slot 10 returns a counted reference by value. As with any object that has a destructor, the caller
    // passes the address of the memory that it is constructed in: here memory that does not hold a null yet.
    struct ReturnedReference {
        void* object;
        ~ReturnedReference() {}
    };
    alignas(ReturnedReference) unsigned char memory[sizeof(ReturnedReference)];
    std::memset(memory, 0xff, sizeof memory);
    const auto* returned = new (memory) ReturnedReference(CallSlot<ReturnedReference>(raw, 10));
    EXPECT_EQ(returned->object, nullptr);
    CallSlot<void>(raw, 11);
    ExpectLastRelease(raw, 3);
}

TEST_F(ClientCameraSlots, TheSlotsOfIClientCameraListenter) {
    void* raw = static_cast<IClientCameraListenter*>(plugin.Get());
    EXPECT_EQ(CallSlot<uint64_t>(raw, 2), 2u);
    EXPECT_EQ(CallSlot<int64_t>(raw, 3), 1);
    for (int i = 0; i < 5; ++i) {
        CallSlot<void>(raw, 4, 7u, "abc", 3ul);
    }
    EXPECT_FALSE(CallSlot<bool>(raw, 6, 7u));
    CallSlot<void>(raw, 4, 7u, "abc", 3ul);
    EXPECT_TRUE(CallSlot<bool>(raw, 6, 7u));
    CallSlot<void>(raw, 5, 7u, "abc", 3ul);
    EXPECT_EQ(host.TakeLines(), (Lines{{2, "[cameraclient] OnAudioPacket ignored"}}));
    ExpectLastRelease(raw, 3);
}

TEST_F(ClientCameraSlots, TheSlotsOfIZUModInterface) {
    void* raw = static_cast<IZUModInterface*>(plugin.Get());
    void* out = this;
    EXPECT_FALSE(CallSlot<bool>(raw, 4, "IClientCameraPlugin", &out));
    EXPECT_EQ(out, this);
    EXPECT_FALSE(CallSlot<bool>(raw, 5, "key", static_cast<void*>(nullptr)));
    EXPECT_EQ(CallSlot<void*>(raw, 6, "key"), nullptr);
    ExpectLastRelease(raw, 3);
}

}  // namespace
}  // namespace zumod
