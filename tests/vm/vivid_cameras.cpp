#include "tests/vm/vivid_cameras.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "tests/support/watch/wait_until.h"

namespace zumod::testing {

std::string DeviceFile(int camera) {
    return "/dev/video" + std::to_string(camera);
}

std::string OutputOf(const std::string& command) {
    std::string output;
    std::FILE* pipe = popen(command.c_str(), "re");
    if (pipe == nullptr) {
        ADD_FAILURE() << "cannot run " << command;
        return output;
    }
    std::array<char, 4096> part{};
    while (const size_t count = std::fread(part.data(), 1, part.size(), pipe)) {
        output.append(part.data(), count);
    }
    EXPECT_EQ(pclose(pipe), 0) << command << "\n" << output;
    return output;
}

void SetControls(int camera, const std::string& controls) {
    OutputOf("v4l2-ctl -d " + DeviceFile(camera) + " --set-ctrl " + controls);
}

void SetUpCameras() {
    for (int camera = 0; camera < kCameras; ++camera) {
        // Coloured squares; only the time is drawn over them.
        SetControls(camera, "test_pattern=4,osd_text_mode=1,percentage_of_dropped_buffers=0,brightness=" +
                                std::to_string(128 - 24 * camera));
    }
    // Otherwise the filled part of the picture keeps the first size that was set.
    SetControls(kHdmi, "enable_capture_composing=0");
}

namespace {

void WriteToDriver(const char* file) {
    OutputOf("echo vivid.0 >/sys/bus/platform/drivers/vivid/" + std::string(file));
}

// Checks that this is the machine that these tests are written for.
class VividMachine : public ::testing::Environment {
public:
    void SetUp() override {
        if (access("/sys/bus/platform/drivers/vivid/vivid.0", F_OK) != 0) {
            std::cerr << "these tests need the cameras of scripts/test --vm\n";
            std::exit(2);
        }
        if (std::getenv(kCamerasAreSetUp) == nullptr) {
            SetUpCameras();
        }
    }
};

[[maybe_unused]] const auto* const kMachine = ::testing::AddGlobalTestEnvironment(new VividMachine);

}  // namespace

void UnbindDriver() {
    WriteToDriver("unbind");
}

void BindDriver() {
    WriteToDriver("bind");
    // A kernel thread creates the device nodes.
    EXPECT_TRUE(WaitUntil([] { return access(DeviceFile(kCameras - 1).c_str(), F_OK) == 0; }));
    SetUpCameras();
}

}  // namespace zumod::testing
