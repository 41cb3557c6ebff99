#include "peer/camera_table.h"

#include <gtest/gtest.h>

namespace zumod::peer {
namespace {

TEST(CameraTable, AlignsIdNameAndSizesInColumns) {
    EXPECT_EQ(CameraTable({{0, false, "Front", "Front", {{640, 480}, {1280, 720}}},
                           {12, false, "K\xc3\xa4mera am Tisch", "", {}}}),
              "ID  NAME             SIZES\n"
              "0   Front            640x480 1280x720\n"
              "12  K\xc3\xa4mera am Tisch  -\n");
}

TEST(CameraTable, SaysThatThereIsNoCamera) {
    EXPECT_EQ(CameraTable({}), "The host has no camera.\n");
}

TEST(CameraTable, EscapesControlCharactersInAName) {
    EXPECT_EQ(CameraTable({{0, false, "a\x1b[2J\nb", "", {}}}),
              "ID  NAME           SIZES\n"
              "0   a\\x1b[2J\\x0ab  -\n");
}

TEST(CameraJson, IsOneLineOfAscii) {
    EXPECT_EQ(CameraJson({{3, true, "Fr\xc3\xb6nt", "D", {{640, 480}}}}),
              "[{\"id\":3,\"name\":\"Fr\\u00f6nt\",\"display_name\":\"D\",\"in_use\":true,"
              "\"sizes\":[{\"width\":640,\"height\":480}]}]\n");
    EXPECT_EQ(CameraJson({}), "[]\n");
}

TEST(CameraJson, EscapesBytesThatAreNotUtf8AndControlCharacters) {
    EXPECT_EQ(CameraJson({{0, false, "a\x1b\"\xff", "\xc2\x9b", {}}}),
              "[{\"id\":0,\"name\":\"a\\u001b\\\"\\ufffd\",\"display_name\":\"\\u009b\",\"in_use\":false,"
              "\"sizes\":[]}]\n");
}

}  // namespace
}  // namespace zumod::peer
