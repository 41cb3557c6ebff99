#include "peer/host_calls.h"

#include <gtest/gtest.h>

namespace zumod::peer {
namespace {

using Bytes = std::vector<uint8_t>;

TEST(Requests, AreTheBytesOfTheProtocol) {
    EXPECT_EQ(ListRequest(), (Bytes{0, 0, 0, 0, 1, 0, 0, 0}));
    EXPECT_EQ(VersionRequest(), (Bytes{0, 0, 0, 0, 10, 0, 0, 0}));
    EXPECT_EQ(OpenRequest(1, {640, 480}, 30),
              (Bytes{16, 0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0, 0x80, 2, 0, 0, 0xE0, 1, 0, 0, 30, 0, 0, 0}));
    EXPECT_EQ(SetFormatRequest(258, {1280, 720}, 25),
              (Bytes{16, 0, 0, 0, 9, 0, 0, 0, 2, 1, 0, 0, 0, 5, 0, 0, 0xD0, 2, 0, 0, 25, 0, 0, 0}));
    EXPECT_EQ(CloseRequest(7), (Bytes{4, 0, 0, 0, 4, 0, 0, 0, 7, 0, 0, 0}));
}

const std::vector<CameraEntry> kCameras = {{0, false, "Front Camera", "", {}}, {1, false, "Front", "", {}},
                                           {2, false, "De\x1bsk", "", {}},     {3, false, "Twin", "", {}},
                                           {4, false, "Twin", "", {}},         {5, false, "4", "", {}}};

std::string Found(const std::string& wanted) {
    const auto camera = FindCamera(kCameras, wanted);
    return camera ? std::to_string(camera->id) : camera.error().text;
}

TEST(FindCamera, ByIdNameOrTheBeginningOfAName) {
    EXPECT_EQ(Found("2"), "2");
    EXPECT_EQ(Found("4"), "4") << "an id comes before a name";
    EXPECT_EQ(Found("Front"), "1") << "the whole name comes before its beginning";
    EXPECT_EQ(Found("front c"), "0");
    EXPECT_EQ(Found("De\\x1bsk"), "2") << "as it is printed";
}

TEST(FindCamera, SaysWhichCamerasMatchOrAreListed) {
    EXPECT_EQ(
        Found("fro"),
        "the names of 2 cameras begin with fro; use the number: camera 0 (Front Camera), camera 1 (Front)");
    EXPECT_EQ(Found("Twin"), "2 cameras are called Twin; use the number: camera 3 (Twin), camera 4 (Twin)");
    EXPECT_EQ(Found("\x1b"),
              "there is no camera \\x1b; the host lists camera 0 (Front Camera), camera 1 "
              "(Front), camera 2 (De\\x1bsk), camera 3 (Twin), camera 4 (Twin), camera 5 (4)");
    EXPECT_EQ(FindCamera({}, "Front").error().text, "there is no camera Front; the host lists none");
}

}  // namespace
}  // namespace zumod::peer
