#include "peer/control_list.h"

#include <gtest/gtest.h>

#include "tests/support/wire/camera_messages.h"

namespace zumod::peer {
namespace {

using testing::Bytes;
using testing::Number32;
using testing::operator+;

Bytes RecordBytes(uint32_t property, uint32_t value, uint32_t flags) {
    return Number32(property) + Number32(value) + Number32(0xFFFFFFF6) + Number32(250) + Number32(5) +
           Number32(7) + Number32(flags);
}

// Property 11, from -10 to 250 by 5, default 7.
ControlEntry Focus(int32_t value, bool is_automatic = false) {
    return {11, value, -10, 250, 5, 7, true, is_automatic, false};
}
ControlEntry Brightness(int32_t value) {
    return {1, value, 0, 255, 1, 128, false, false, false};
}
const std::vector<ControlEntry> kControls = {Brightness(100), Focus(0)};

std::string MistakeIn(const std::string& setting) {
    const auto parsed = ParseSetting(setting);
    return parsed ? "" : parsed.error().text;
}
Expected<ControlChange> Check(const std::string& setting,
                              const std::vector<ControlEntry>& controls = kControls) {
    return CheckSetting(ParseSetting(setting).value(), controls, "camera 0 (Front)");
}
std::string Refusal(const std::string& setting, const std::vector<ControlEntry>& controls = kControls) {
    const auto checked = Check(setting, controls);
    return checked ? "" : checked.error().text;
}

TEST(ControlList, ReadsTheRecordsAndSkipsUnknownNumbers) {
    const auto controls =
        ParseControlList(RecordBytes(11, 30, 3) + RecordBytes(99, 1, 0) + RecordBytes(1, 2, 4));
    ASSERT_TRUE(controls);
    EXPECT_EQ(*controls, (std::vector<ControlEntry>{{11, 30, -10, 250, 5, 7, true, true, false},
                                                    {1, 2, -10, 250, 5, 7, false, false, true}}));
    EXPECT_EQ(ParseControlList(Bytes(29)).error().text, "camera controls in 29 bytes");
}

TEST(ControlList, ASettingIsANameAndANumberOrAWord) {
    using Kind = ControlSetting::Kind;
    EXPECT_EQ(ParseSetting("pan=-3600"), (ControlSetting{FindControl(13), "pan=-3600", Kind::kValue, -3600}));
    EXPECT_EQ(ParseSetting("focus=auto"),
              (ControlSetting{FindControl(11), "focus=auto", Kind::kAutomatic, 0}));
    EXPECT_EQ(ParseSetting("hue=default"),
              (ControlSetting{FindControl(4), "hue=default", Kind::kDefault, 0}));
}

TEST(ControlList, AMistakeInASettingIsNamed) {
    EXPECT_EQ(MistakeIn("brightnes=1"), "there is no control \"brightnes\"; did you mean brightness?");
    EXPECT_EQ(MistakeIn("fokus=1"), "there is no control \"fokus\"; did you mean focus?");
    EXPECT_EQ(MistakeIn("focus"), "takes CONTROL=VALUE, not \"focus\"");
    EXPECT_EQ(MistakeIn("=3"), "takes CONTROL=VALUE, not \"=3\"");
    for (const std::string value : {"", "1x", "on", "3000000000", "1.5"}) {
        EXPECT_EQ(MistakeIn("gain=" + value),
                  "the value of gain is a number, auto or default, not \"" + value + "\"");
    }
}

TEST(ControlList, ASettingBecomesAChangeThatTheCameraTakes) {
    EXPECT_EQ(Check("brightness=255"), (ControlChange{1, 255, 1}));
    EXPECT_EQ(Check("brightness=default"), (ControlChange{1, 128, 1}));
    EXPECT_EQ(Check("focus=-10"), (ControlChange{11, -10, 5}));
    EXPECT_EQ(Check("focus=auto"), (ControlChange{11, std::nullopt, 5}));
}

TEST(ControlList, WhatTheCameraDoesNotTakeIsRefusedWithTheReason) {
    EXPECT_EQ(Refusal("brightness=256"), "brightness=256: the brightness of camera 0 (Front) is 0 to 255");
    EXPECT_EQ(Refusal("focus=-11"), "focus=-11: the focus of camera 0 (Front) is -10 to 250 by 5");
    EXPECT_EQ(Refusal("brightness=auto"), "brightness=auto: camera 0 (Front) has no automatic brightness");
    EXPECT_EQ(Refusal("zoom=1"), "camera 0 (Front) has no zoom; it has brightness, focus");
    EXPECT_EQ(Refusal("zoom=1", {}), "camera 0 (Front) has no zoom; it has no controls");
    ControlEntry fixed = Brightness(1);
    fixed.is_read_only = true;
    EXPECT_EQ(Refusal("brightness=2", {fixed}),
              "brightness=2: the brightness of camera 0 (Front) cannot be changed");
}

TEST(ControlList, AChangeIsDoneIfTheCameraHasTheValueOrRoundedIt) {
    const ControlChange to_50{11, 50, 5};
    EXPECT_TRUE(IsDone(to_50, Focus(50)));
    EXPECT_TRUE(IsDone(to_50, Focus(46)));
    EXPECT_FALSE(IsDone(to_50, Focus(45)));
    EXPECT_FALSE(IsDone(to_50, Focus(50, true)));
    const ControlChange to_automatic{11, std::nullopt, 5};
    EXPECT_TRUE(IsDone(to_automatic, Focus(0, true)));
    EXPECT_FALSE(IsDone(to_automatic, Focus(0)));
    EXPECT_FALSE(IsDone({1, 128, 1}, Brightness(127)));
}

TEST(ControlList, IsPrintedInColumns) {
    EXPECT_EQ(ControlTable({Brightness(100), Focus(30, true)}),
              "NAME        VALUE  RANGE            DEFAULT  AUTOMATIC\n"
              "brightness  100    0 to 255         128      -\n"
              "focus       30     -10 to 250 by 5  7        on\n");
    EXPECT_EQ(ControlTable({}), "The camera has no controls.\n");
}

}  // namespace
}  // namespace zumod::peer
