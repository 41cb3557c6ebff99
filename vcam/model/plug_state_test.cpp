#include "vcam/model/plug_state.h"

#include <gtest/gtest.h>

namespace zumod::vcam {
namespace {

using std::chrono::milliseconds;

const PlugState::Time kBegin{milliseconds(1000)};

TEST(PlugState, IsPresentUntilItIsUnplugged) {
    PlugState plug(3);
    EXPECT_TRUE(plug.IsPresent(kBegin));
    plug.Unplug();
    EXPECT_FALSE(plug.IsPresent(kBegin));
    EXPECT_FALSE(plug.IsPresent(kBegin + std::chrono::hours(1)));
    EXPECT_EQ(plug.Number(), 3);
}

TEST(PlugState, ComesBackUnderItsNumberWhenTheTimeHasCome) {
    PlugState plug(3);
    plug.Unplug();
    plug.Plan(ParseFault("replug/250").value(), kBegin);
    EXPECT_FALSE(plug.IsPresent(kBegin + milliseconds(249)));
    EXPECT_TRUE(plug.IsPresent(kBegin + milliseconds(250)));
    EXPECT_EQ(plug.Number(), 3);
}

TEST(PlugState, ComesBackUnderAnotherNumberAndKeepsTheOldOneUntilThen) {
    PlugState plug(3);
    plug.Unplug();
    plug.Plan(ParseFault("replug-as/7/10").value(), kBegin);
    EXPECT_FALSE(plug.IsPresent(kBegin));
    EXPECT_EQ(plug.Number(), 3);
    EXPECT_TRUE(plug.IsPresent(kBegin + milliseconds(10)));
    EXPECT_EQ(plug.Number(), 7);
}

TEST(PlugState, FollowsTheLatestPlan) {
    PlugState plug(3);
    plug.Unplug();
    plug.Plan(ParseFault("replug-as/7/10").value(), kBegin);
    plug.Plan(ParseFault("replug-as/8/20").value(), kBegin);
    EXPECT_FALSE(plug.IsPresent(kBegin + milliseconds(10)));
    EXPECT_TRUE(plug.IsPresent(kBegin + milliseconds(20)));
    EXPECT_EQ(plug.Number(), 8);
}

TEST(PlugState, KeepsAPlanWhileItIsHeld) {
    PlugState plug(3);
    plug.Unplug();
    plug.Hold(true);
    plug.Plan(ParseFault("replug-as/7/10").value(), kBegin);
    EXPECT_TRUE(plug.IsReplugPlanned());
    EXPECT_FALSE(plug.IsPresent(kBegin + milliseconds(10)));
    plug.Hold(false);
    EXPECT_TRUE(plug.IsPresent(kBegin + milliseconds(10)));
    EXPECT_EQ(plug.Number(), 7);
}

TEST(PlugState, CarriesOutAPlanOnce) {
    PlugState plug(3);
    plug.Unplug();
    plug.Plan(ParseFault("replug").value(), kBegin);
    EXPECT_TRUE(plug.IsPresent(kBegin));
    plug.Unplug();
    EXPECT_FALSE(plug.IsPresent(kBegin + milliseconds(1)));
}

}  // namespace
}  // namespace zumod::vcam
