#include "host/line_limit.h"

#include <gtest/gtest.h>

#include <string>

namespace zumod::host {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class LineLimitTest : public ::testing::Test {
protected:
    // How many of these lines pass.
    int Passing(int count, const std::string& line) {
        int passing = 0;
        for (int i = 0; i < count; ++i) {
            passing += limit.Decide(line, now).passes ? 1 : 0;
        }
        return passing;
    }

    LineLimit::Time now{seconds(1000)};
    LineLimit limit;
};

TEST_F(LineLimitTest, ASourceMayWrite200LinesAtOnceAnd20PerSecondAfterThat) {
    EXPECT_EQ(Passing(1000, "[a] line"), 200);
    now += milliseconds(49);
    EXPECT_EQ(Passing(10, "[a] line"), 0);
    now += milliseconds(1);
    EXPECT_EQ(Passing(10, "[a] line"), 1);
    now += seconds(1);
    EXPECT_EQ(Passing(100, "[a] line"), 20);
    now += seconds(10);
    EXPECT_EQ(Passing(1000, "[a] line"), 200);
}

TEST_F(LineLimitTest, ASourceDoesNotLimitAnother) {
    EXPECT_EQ(Passing(300, "[a] line"), 200);
    EXPECT_EQ(Passing(300, "[b] line"), 200);
    EXPECT_EQ(Passing(300, "[host] peer 1 is slow"), 200);
    EXPECT_EQ(Passing(300, "[host] peer 12 is slow"), 200);
    EXPECT_EQ(Passing(300, "[host] camera 1"), 200);
    EXPECT_EQ(Passing(300, "no source"), 200);
    EXPECT_EQ(Passing(300, "[host] peer 1 has left"), 0);
}

TEST_F(LineLimitTest, LinesThatAreLeftOutAreCountedBeforeTheNextOne) {
    Passing(203, "[host] peer 1 line");
    now += seconds(1);
    const auto decision = limit.Decide("[host] peer 1 line", now);
    EXPECT_TRUE(decision.passes);
    EXPECT_EQ(decision.before, (LineLimit::LeftOut{"[host] peer 1", 3}));
    EXPECT_FALSE(limit.Decide("[host] peer 1 line", now).before.has_value());
    EXPECT_TRUE(limit.TakeLeftOut().empty());
    Passing(100, "[host] peer 1 line");
    EXPECT_EQ(limit.TakeLeftOut(), (std::vector<LineLimit::LeftOut>{{"[host] peer 1", 82}}));
    EXPECT_TRUE(limit.TakeLeftOut().empty());
}

TEST_F(LineLimitTest, SourcesWithoutEndShareOneLimit) {
    int passing = 0;
    for (int i = 0; i < 2000; ++i) {
        passing += Passing(1, "[" + std::to_string(i) + "] line");
    }
    EXPECT_EQ(passing, 600 + 200);
    EXPECT_EQ(Passing(300, "[1] line"), 199);  // 101 are left out
    // Once they are quiet, others have their place, also that of a source with lines that were left out.
    now += seconds(20);
    EXPECT_EQ(Passing(300, "[new] line"), 200);
    EXPECT_EQ(limit.TakeLeftOut(),
              (std::vector<LineLimit::LeftOut>{{"[new]", 100}, {"[other]", 1200 + 101}}));
}

TEST_F(LineLimitTest, WhatPeersDoWithCamerasIsNotHiddenByOtherLinesAboutThem) {
    EXPECT_EQ(Passing(300, "[host] peer 1 may not open camera 7"), 200);
    EXPECT_EQ(Passing(300, "[session] peer 1 has opened camera 0"), 200);
    EXPECT_EQ(Passing(300, "[session] peer 2 has opened camera 0"), 200);
}

TEST_F(LineLimitTest, APeerThatConnectsAgainAndAgainHasOneLimit) {
    int passing = 0;
    for (int i = 0; i < 100; ++i) {
        passing += Passing(100, "[host] peer " + std::to_string(i) + " line");
    }
    EXPECT_EQ(passing, 1000);
    EXPECT_EQ(Passing(300, "[session] peer 99 has opened camera 0"), 200);
    EXPECT_EQ(Passing(300, "[host] camera 1"), 200);
    now += seconds(1);
    EXPECT_EQ(Passing(300, "[host] peer 100 line"), 100);
    now += seconds(10);
    EXPECT_EQ(Passing(300, "[host] peer 101 line"), 200);
}

TEST_F(LineLimitTest, ASourceThatEndsSaysWhatWasLeftOutAndIsForgotten) {
    EXPECT_EQ(limit.End("[host] peer 1", now), std::nullopt);
    Passing(1, "[host] peer 1 line");
    EXPECT_EQ(limit.End("[host] peer 1", now), std::nullopt);
    Passing(203, "[host] peer 1 line");
    EXPECT_EQ(limit.End("[host] peer 1", now), (LineLimit::LeftOut{"[host] peer 1", 3}));
    EXPECT_EQ(limit.End("[host] peer 1", now), std::nullopt);
    EXPECT_EQ(Passing(1, "[host] peer 1 has left"), 1);
    // These lines count, too: when the limit of all peers is reached, only the sum is written, at the end.
    for (int i = 2; i < 100; ++i) {
        Passing(300, "[host] peer " + std::to_string(i) + " line");
        limit.End("[host] peer " + std::to_string(i), now);
    }
    EXPECT_EQ(limit.End("[host] peer 99", now), std::nullopt);
    const auto left_out = limit.TakeLeftOut();
    ASSERT_EQ(left_out.size(), 1U);
    EXPECT_EQ(left_out[0].source, "[other]");
}

}  // namespace
}  // namespace zumod::host
