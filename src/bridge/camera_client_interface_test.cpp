// IClientCamera and IClientCameraListenter, called through their vtable slots.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "src/bridge/camera_client.h"
#include "tests/support/doubles/client_camera_double.h"
#include "tests/support/doubles/raw_slots.h"

namespace zumod {
namespace {

using testing::CallSlot;
using testing::CameraScript;
using Calls = std::vector<std::string>;

class ListenerDouble final : public CCounted_T<IClientCameraListenter> {
public:
    void OnVideoPacket(uint32_t id, const void* data, unsigned long length) override {
        calls.push_back("video " + std::to_string(id) + " " +
                        std::string(static_cast<const char*>(data), length));
    }
    void OnAudioPacket(uint32_t id, const void*, unsigned long) override {
        calls.push_back("audio " + std::to_string(id));
    }
    bool IsBusy(uint32_t id) override { return id == 7; }

    Calls calls;
};

TEST(ClientCameraInterface, TheSlotsOfIClientCamera) {
    CameraScript() = {};
    const CRefPtr_T<IClientCamera> camera = CreateClientCamera();
    const CRefPtr_T<ListenerDouble> listener(new ListenerDouble);
    const void* raw = camera.Get();
    EXPECT_EQ(CallSlot<uint64_t>(raw, 2), 2u);
    EXPECT_EQ(CallSlot<int64_t>(raw, 3), 1);
    CallSlot<void>(raw, 4, static_cast<IClientCameraListenter*>(listener.Get()));
    CallSlot<void>(raw, 5, 0xFFFFFFFFu);
    CallSlot<void>(raw, 6, 640, -480, 30);
    CallSlot<void>(raw, 7, 5, -2, 1);
    CallSlot<void>(raw, 8, uint8_t{200});
    EXPECT_EQ(CallSlot<uint8_t>(raw, 9), 0xC3);
    EXPECT_TRUE(CallSlot<bool>(raw, 10));
    const uint32_t id = 9;
    EXPECT_EQ(CallSlot<int32_t>(raw, 11, &id), 0);
    EXPECT_EQ(CameraScript().listeners, (std::vector<IClientCameraListenter*>{listener.Get()}));
    EXPECT_EQ(CameraScript().calls,
              (Calls{"0 created", "0 SetListener()", "0 SetCameraId(4294967295)",
                     "0 SetFormat(640, -480, 30)", "0 SetProperty(5, -2, 1)", "0 SetCameraFlag(200)",
                     "0 GetCameraFlag()", "0 Open()", "0 Close(9)"}));
}

TEST(ClientCameraInterface, TheSlotsOfIClientCameraListenter) {
    const CRefPtr_T<ListenerDouble> listener(new ListenerDouble);
    const void* raw = static_cast<IClientCameraListenter*>(listener.Get());
    EXPECT_EQ(CallSlot<uint64_t>(raw, 2), 2u);
    EXPECT_EQ(CallSlot<int64_t>(raw, 3), 1);
    CallSlot<void>(raw, 4, 7u, "abc", 3ul);
    CallSlot<void>(raw, 5, 8u, "abc", 3ul);
    EXPECT_TRUE(CallSlot<bool>(raw, 6, 7u));
    EXPECT_FALSE(CallSlot<bool>(raw, 6, 8u));
    EXPECT_EQ(listener->calls, (Calls{"video 7 abc", "audio 8"}));
}

}  // namespace
}  // namespace zumod
