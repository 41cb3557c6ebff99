#include "vcam/model/plug_state.h"

#include <gtest/gtest.h>

namespace zumod::vcam {
namespace {

using std::chrono::milliseconds;

const PlugState::Time kStart{milliseconds(1000)};

TEST(PlugState, IsPresentUntilItIsUnplugged) {
    PlugState plug(3);
    EXPECT_TRUE(plug.IsPresent(kStart));
    plug.Unplug();
    EXPECT_FALSE(plug.IsPresent(kStart));
    EXPECT_FALSE(plug.IsPresent(kStart + std::chrono::hours(1)));
    EXPECT_EQ(plug.Number(), 3);
}

TEST(PlugState, ComesBackUnderItsNumberWhenTheTimeHasCome) {
    PlugState plug(3);
    plug.Unplug();
    plug.Plan(ParseFault("replug/250").value(), kStart);
    EXPECT_FALSE(plug.IsPresent(kStart + milliseconds(249)));
    EXPECT_TRUE(plug.IsPresent(kStart + milliseconds(250)));
    EXPECT_EQ(plug.Number(), 3);
}

TEST(PlugState, ComesBackUnderAnotherNumberAndKeepsTheOldOneUntilThen) {
    PlugState plug(3);
    plug.Unplug();
    plug.Plan(ParseFault("replug-as/7/10").value(), kStart);
    EXPECT_FALSE(plug.IsPresent(kStart));
    EXPECT_EQ(plug.Number(), 3);
    EXPECT_TRUE(plug.IsPresent(kStart + milliseconds(10)));
    EXPECT_EQ(plug.Number(), 7);
}

TEST(PlugState, FollowsTheLatestPlan) {
    PlugState plug(3);
    plug.Unplug();
    plug.Plan(ParseFault("replug-as/7/10").value(), kStart);
    plug.Plan(ParseFault("replug-as/8/20").value(), kStart);
    EXPECT_FALSE(plug.IsPresent(kStart + milliseconds(10)));
    EXPECT_TRUE(plug.IsPresent(kStart + milliseconds(20)));
    EXPECT_EQ(plug.Number(), 8);
}

TEST(PlugState, CarriesOutAPlanOnce) {
    PlugState plug(3);
    plug.Unplug();
    plug.Plan(ParseFault("replug").value(), kStart);
    EXPECT_TRUE(plug.IsPresent(kStart));
    plug.Unplug();
    EXPECT_FALSE(plug.IsPresent(kStart + milliseconds(1)));
}

}  // namespace
}  // namespace zumod::vcam
