#include "peer/printed_text.h"

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

TEST(CameraTable, FitsTheTerminal) {
    const CameraEntry camera{
        0, true, "A camera with quite a long name", "", {{640, 480}, {1280, 720}, {1920, 1080}}};
    EXPECT_EQ(CameraTable({camera, {1, false, "\xe5\x89\x8d\xe9\x9d\xa2", "", {}}}, 48),
              "ID  NAME                          SIZES\n"
              "0   A camera with quit\u2026 (in use)  640x480\n"
              "                                  1280x720\n"
              "                                  1920x1080\n"
              "1   \xe5\x89\x8d\xe9\x9d\xa2                          -\n");
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

const CameraEntry kDesk{1, false, "De\x1bsk", "", {}};

TEST(StatsText, NamesTheCameraAndTheKnownFigures) {
    EXPECT_EQ(
        FiguresText(kDesk, {640, 480}, {1.0, 30, 50000, 0, 12.34, 56.78, 2}),
        "camera 1 (De\\x1bsk) 640x480: 30.0 frames/s, 0.40 Mbit/s, latency 12.3 ms (max 56.8 ms), 2 dropped");
    EXPECT_EQ(FiguresText(kDesk, {}, {2.0, 3, 0, 3, {}, {}, {}}),
              "camera 1 (De\\x1bsk): 1.5 frames/s, 0.00 Mbit/s, 3 not decoded");
}

TEST(StatsText, FitsTheTerminal) {
    const StreamFigures figures{1.0, 30, 50000, 0, 12.34, 56.78, 2};
    EXPECT_EQ(FiguresLine(kDesk, {640, 480}, figures, 120), FiguresText(kDesk, {640, 480}, figures));
    EXPECT_EQ(FiguresLine(kDesk, {640, 480}, figures, 80),
              "De\\x1bsk 640x480 30.0/s 0.40 Mbit/s 12.3 ms (max 56.8) 2 dropped");
    EXPECT_EQ(FiguresLine(kDesk, {640, 480}, figures, 64),
              "De\\x1b\u2026 640x480 30.0/s 0.40 Mbit/s 12.3 ms (max 56.8) 2 dropped");
    EXPECT_EQ(FiguresLine(kDesk, {640, 480}, figures, 20), "De\\\u2026 640x480 30.0/\u2026");
}

TEST(StatsText, IsOneJsonObjectPerLine) {
    EXPECT_EQ(
        FiguresJson(kDesk, {640, 480}, {0.5, 10, 1000, 1, 1.5, 2.5, 4}),
        "{\"camera\":1,\"name\":\"De\\u001bsk\",\"width\":640,\"height\":480,\"seconds\":0.5,\"frames\":10,"
        "\"fps\":20.0,\"bit_rate\":16000.0,\"latency_ms\":{\"median\":1.5,\"max\":2.5},\"dropped\":4,"
        "\"undecoded\":1}\n");
    EXPECT_EQ(FiguresJson(kDesk, {}, {1.0, 0, 0, 0, {}, {}, {}}),
              "{\"camera\":1,\"name\":\"De\\u001bsk\",\"width\":0,\"height\":0,\"seconds\":1.0,\"frames\":0,"
              "\"fps\":0.0,\"bit_rate\":0.0,\"latency_ms\":null,\"dropped\":null,\"undecoded\":0}\n");
    EXPECT_EQ(EventJson(kDesk, CameraEvent::kGone, "camera 1 is gone"),
              "{\"camera\":1,\"name\":\"De\\u001bsk\",\"event\":\"gone\",\"text\":\"camera 1 is gone\"}\n");
}

}  // namespace
}  // namespace zumod::peer
