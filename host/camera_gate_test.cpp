#include "host/camera_gate.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/wire/camera_messages.h"

namespace zumod::host {
namespace {

VideoDevice Camera(const std::string& name, const std::string& bus) {
    VideoDevice device;
    device.name = name;
    device.bus = bus;
    return device;
}

bool IsLentWith(std::vector<std::string> allow, std::vector<std::string> deny) {
    return IsLent({std::move(allow), std::move(deny), false}, Camera("Desk Camera", "usb-0000:00:14.0-2"));
}

TEST(CameraGate, EveryCameraIsLentWithoutRules) {
    EXPECT_TRUE(IsLentWith({}, {}));
}

TEST(CameraGate, ACameraIsNamedByItsNameOrItsBusInAnyLetterCase) {
    EXPECT_TRUE(IsLentWith({"Desk Camera"}, {}));
    EXPECT_TRUE(IsLentWith({"desk*"}, {}));
    EXPECT_TRUE(IsLentWith({"Front", "usb-*-2"}, {}));
    EXPECT_FALSE(IsLentWith({"Desk"}, {}));
    EXPECT_FALSE(IsLentWith({"usb-*-1"}, {}));
    EXPECT_FALSE(IsLentWith({""}, {}));
    EXPECT_FALSE(IsLentWith({}, {"Front", "DESK*"}));
    EXPECT_FALSE(IsLentWith({}, {"usb-0000:00:14.0-?"}));
}

TEST(CameraGate, DenyIsStrongerThanAllow) {
    EXPECT_FALSE(IsLentWith({"*"}, {"Desk*"}));
    EXPECT_TRUE(IsLentWith({"Desk*"}, {"Front*"}));
}

// The device of a camera that the module lists cannot be looked at.
TEST(CameraGate, WithRulesACameraThatCannotBeCheckedIsNotLent) {
    CameraFiles files;
    files.OnLogLine("[CameraEnumerator]  id: 0 name: Desk bus:  usb-1 file: /nonexistent/video0 res: ");
    const auto list = testing::ListBytes({testing::CameraBytes(0, "Desk", {{640, 480}})});
    CameraGate open({}, files, [](const std::string&) {});
    EXPECT_FALSE(open.ChecksOpens());
    EXPECT_EQ(open.OnList(list).message, list);
    CameraGate rules({{"Desk"}, {}, false}, files, [](const std::string&) {});
    EXPECT_TRUE(rules.ChecksOpens());
    EXPECT_EQ(rules.OnList(list).message, testing::kEmptyListBytes);
    EXPECT_EQ(rules.CheckOpen(0).refusal, "this host lends no camera 0");
    EXPECT_EQ(rules.CheckOpen(1).refusal, "this host lends no camera 1");
}

TEST(CameraGate, WithRulesAMalformedListIsEmpty) {
    const CameraFiles files;
    std::vector<std::string> log;
    CameraGate gate({{}, {"Front"}, false}, files, [&](const std::string& text) { log.push_back(text); });
    auto list = testing::ListBytes({testing::CameraBytes(0, "Desk", {{640, 480}})});
    list.pop_back();
    EXPECT_EQ(gate.OnList(list).message, testing::kEmptyListBytes);
    EXPECT_EQ(log.back(), "[host] the module's camera list is malformed: no camera is lent");
}

}  // namespace
}  // namespace zumod::host
