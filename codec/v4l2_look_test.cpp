#include "codec/v4l2_look.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <thread>

#include "tests/support/process/work_directory.h"

namespace zumod::testing {
namespace {

class V4l2LookTest : public ::testing::Test {
protected:
    V4l2LookTest() { std::filesystem::create_directory(Classes()); }

    std::string Classes() const { return work / "video4linux"; }
    // A device as the kernel shows it; attached to nothing if `subsystem` is empty.
    void AddDevice(const std::string& name, const std::string& subsystem) {
        const std::filesystem::path device = Classes() + "/" + name;
        std::filesystem::create_directory(device);
        if (!subsystem.empty()) {
            std::filesystem::create_directory(device / "device");
            std::filesystem::create_symlink("../../../../bus/" + subsystem, device / "device/subsystem");
        }
    }
    // Whether it looks. It finds nothing.
    static bool Looks(V4l2Look& look) {
        bool looked = false;
        look.Run([&]() -> std::unique_ptr<int> {
            looked = true;
            return nullptr;
        });
        return looked;
    }
    bool Looks() const {
        V4l2Look look(Classes());
        return Looks(look);
    }

    const WorkDirectory work;
};

TEST_F(V4l2LookTest, DoesNotLookWithoutADevice) {
    EXPECT_FALSE(Looks());
    std::filesystem::remove(Classes());
    EXPECT_FALSE(Looks());
}

TEST_F(V4l2LookTest, DoesNotLookIfThereAreOnlyUsbCamerasAndVirtualDevices) {
    AddDevice("video0", "usb");
    AddDevice("video1", "usb");
    AddDevice("video10", "");
    EXPECT_FALSE(Looks());
}

TEST_F(V4l2LookTest, LooksIfADeviceIsPartOfTheMachine) {
    AddDevice("video0", "usb");
    AddDevice("video11", "platform");
    EXPECT_TRUE(Looks());
}

TEST_F(V4l2LookTest, DoesNotLookForTheSakeOfOtherDevices) {
    AddDevice("v4l-subdev0", "i2c");
    AddDevice("radio0", "pci");
    EXPECT_FALSE(Looks());
}

TEST_F(V4l2LookTest, LooksUntilItHasFoundNothingOnce) {
    AddDevice("video0", "pci");
    V4l2Look look(Classes());
    const auto find = [] { return std::make_unique<int>(7); };
    EXPECT_EQ(*look.Run(find), 7);
    EXPECT_EQ(*look.Run(find), 7);
    EXPECT_TRUE(Looks(look));
    EXPECT_FALSE(Looks(look));
    EXPECT_EQ(look.Run(find), nullptr);
}

TEST_F(V4l2LookTest, ThreadsThatComeAtTheSameTimeLookOnce) {
    AddDevice("video0", "platform");
    V4l2Look look(Classes());
    std::atomic<int> looks{0};
    std::atomic<int> ready{0};
    const auto run = [&] {
        ++ready;
        while (ready < 2) {
            std::this_thread::yield();
        }
        look.Run([&]() -> std::unique_ptr<int> {
            ++looks;
            return nullptr;
        });
    };
    std::thread other(run);
    run();
    other.join();
    EXPECT_EQ(looks, 1);
}

}  // namespace
}  // namespace zumod::testing
