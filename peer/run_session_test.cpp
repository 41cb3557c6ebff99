#include "peer/run_session.h"

#include <gtest/gtest.h>

#include "vcam/model/camera_option.h"

namespace zumod::peer {
namespace {

CameraEntry Camera(const std::string& name, std::vector<PictureSize> sizes) {
    return {0, false, name, name, std::move(sizes)};
}

TEST(VirtualCameraOption, MirrorsNameSizesAndRates) {
    EXPECT_EQ(
        VirtualCameraOption(Camera("Front", {{640, 480}, {1280, 720}}), {1280, 720}, 25),
        "source=feed,card=\"Front\",formats=NV12:YUYV:MJPG,sizes=1280x720:640x480,fps=25:30:20:15:10:5");
}

TEST(VirtualCameraOption, IsValidWhateverAHostLists) {
    const PictureSize malformed[] = {{1, 1}, {17, 16}, {16384, 16384}, {8192, 8192}, {0, 0}};
    std::vector<PictureSize> many(std::begin(malformed), std::end(malformed));
    for (uint32_t side = 16; side < 4096; side += 2) {
        many.push_back({side, 16});
    }
    for (const std::string name : {"", "a\",device=9,card=\"b", "\x1b[2J\xff\n", "\"", "==,,"}) {
        const auto config = vcam::ParseCamera(VirtualCameraOption(Camera(name, many), {640, 480}, 30));
        ASSERT_TRUE(config) << name << ": " << config.error().text;
        EXPECT_EQ(config->number, -1);
        EXPECT_EQ(config->source.kind, vcam::LiveSource::kFeed);
        EXPECT_EQ(config->sizes.size(), 256U);
        EXPECT_EQ(config->sizes[0], (vcam::Size{640, 480}));
    }
    const std::string longest(200, 'x');
    EXPECT_EQ(vcam::ParseCamera(VirtualCameraOption(Camera(longest, {}), {640, 480}, 30))->card,
              std::string(31, 'x'));
}

TEST(VirtualCameraOption, LeavesTheSizesToZuVcamIfNoneCanBeOffered) {
    EXPECT_EQ(VirtualCameraOption(Camera("Front", {{1, 1}}), {3, 3}, 30),
              "source=feed,card=\"Front\",formats=NV12:YUYV:MJPG,fps=30:25:20:15:10:5");
}

}  // namespace
}  // namespace zumod::peer
