#include "host/line_limit.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zumod::host {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class LineLimitTest : public ::testing::Test {
protected:
    // How many of such lines pass, each with a number.
    int Passing(int count, const std::string& line) {
        int passing = 0;
        for (int i = 0; i < count; ++i) {
            const auto decision = limit.Decide(line + " " + std::to_string(++lines), now);
            passing += decision.passes ? 1 : 0;
            missing.insert(missing.end(), decision.before.begin(), decision.before.end());
        }
        return passing;
    }
    static LineLimit::Missing LeftOut(const std::string& source, uint64_t count) {
        return {LineLimit::Missing::Why::kLeftOut, source, count};
    }
    static LineLimit::Missing Repeated(const std::string& source, uint64_t count) {
        return {LineLimit::Missing::Why::kRepeated, source, count};
    }
    using All = std::vector<LineLimit::Missing>;

    LineLimit::Time now{seconds(1000)};
    LineLimit limit;
    int lines = 0;
    All missing;  // that Passing was told of
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
    EXPECT_EQ(decision.before, All{LeftOut("[host] peer 1", 3)});
    EXPECT_TRUE(limit.Decide("[host] peer 1 line 2", now).before.empty());
    EXPECT_TRUE(limit.TakeMissing().empty());
    Passing(100, "[host] peer 1 line");
    EXPECT_EQ(limit.TakeMissing(), All{LeftOut("[host] peer 1", 82)});
    EXPECT_TRUE(limit.TakeMissing().empty());
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
    EXPECT_EQ(missing, All{LeftOut("[other]", 1200 + 101)});
    EXPECT_EQ(limit.TakeMissing(), All{LeftOut("[new]", 100)});
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
    EXPECT_EQ(limit.End("[host] peer 1", now), All());
    Passing(1, "[host] peer 1 line");
    EXPECT_EQ(limit.End("[host] peer 1", now), All());
    Passing(203, "[host] peer 1 line");
    EXPECT_EQ(limit.End("[host] peer 1", now), All{LeftOut("[host] peer 1", 3)});
    EXPECT_EQ(limit.End("[host] peer 1", now), All());
    EXPECT_EQ(Passing(1, "[host] peer 1 has left"), 1);
    // These lines count, too: when the limit of all peers is reached, only the sum is written, at the end.
    for (int i = 2; i < 100; ++i) {
        Passing(300, "[host] peer " + std::to_string(i) + " line");
        limit.End("[host] peer " + std::to_string(i), now);
    }
    EXPECT_EQ(limit.End("[host] peer 99", now), All());
    const auto left_out = limit.TakeMissing();
    ASSERT_EQ(left_out.size(), 1U);
    EXPECT_EQ(left_out[0].source, "[other]");
}

// Peers that connect and open again and again use up what all peers share.
TEST_F(LineLimitTest, APeerThatStaysIsNotHiddenByPeersThatComeAndGo) {
    EXPECT_EQ(Passing(1, "[session] peer 1 has opened camera 0"), 1);
    int id = 1;
    const auto flood = [&] {
        for (int i = 0; i < 2000; ++i) {
            const std::string peer = "[session] peer " + std::to_string(++id);
            Passing(1, peer + " has opened camera 0");
            limit.End(peer, now);
        }
    };
    flood();
    // One that has come during the flood. It stays, so its later lines are written.
    EXPECT_EQ(Passing(1, "[session] peer 9999 has opened camera 0"), 0);
    now += milliseconds(100);
    flood();
    EXPECT_EQ(Passing(5, "[session] peer 1 has closed camera 0"), 2);
    missing.clear();
    EXPECT_EQ(Passing(5, "[session] peer 9999 has closed camera 0"), 2);
    EXPECT_EQ(missing, All{LeftOut("[session] peer 9999", 1)});
    now += seconds(10);
    EXPECT_EQ(Passing(100, "[session] peer 1 has opened camera 0"), 100);
}

TEST_F(LineLimitTest, WhatForgottenSourcesHaveLeftOutIsWrittenEvery10Seconds) {
    const auto leave_out = [&](int id) {
        const std::string peer = "[host] peer " + std::to_string(id);
        Passing(1200, peer + " line");
        limit.End(peer, now);
    };
    for (int id = 0; id < 10; ++id) {
        leave_out(id);
    }
    missing.clear();
    Passing(1, "[camera] line");
    ASSERT_EQ(missing.size(), 1U);
    EXPECT_EQ(missing[0].source, "[other]");
    leave_out(11);
    missing.clear();
    now += milliseconds(9'999);
    Passing(1, "[camera] line");
    EXPECT_TRUE(missing.empty());
    now += milliseconds(1);
    Passing(1, "[camera] line");
    EXPECT_EQ(missing, All{LeftOut("[other]", 1200)});
    EXPECT_TRUE(limit.TakeMissing().empty());
}

TEST_F(LineLimitTest, TheSameLineWithin10SecondsIsWrittenOnceWithACount) {
    EXPECT_TRUE(limit.Decide("[a] one", now).passes);
    for (int i = 0; i < 1000; ++i) {
        EXPECT_FALSE(limit.Decide("[a] one", now).passes);
    }
    EXPECT_TRUE(limit.Decide("[b] one", now).before.empty());
    now += milliseconds(9'999);
    EXPECT_FALSE(limit.Decide("[a] one", now).passes);
    auto decision = limit.Decide("[a] two", now);
    EXPECT_TRUE(decision.passes);
    EXPECT_EQ(decision.before, All{Repeated("[a]", 1001)});
    // Another line was in between.
    EXPECT_TRUE(limit.Decide("[a] one", now).passes);
    EXPECT_FALSE(limit.Decide("[a] one", now).passes);
    now += seconds(10);
    decision = limit.Decide("[a] one", now);
    EXPECT_TRUE(decision.passes);
    EXPECT_EQ(decision.before, All{Repeated("[a]", 1)});
    EXPECT_FALSE(limit.Decide("[a] one", now).passes);
    EXPECT_FALSE(limit.Decide("[a] one", now).passes);
    EXPECT_EQ(limit.TakeMissing(), All{Repeated("[a]", 2)});
    // The source's end says it, too.
    EXPECT_TRUE(limit.Decide("[host] peer 1 line", now).passes);
    EXPECT_FALSE(limit.Decide("[host] peer 1 line", now).passes);
    EXPECT_EQ(limit.End("[host] peer 1", now), All{Repeated("[host] peer 1", 1)});
}

TEST_F(LineLimitTest, ALongLineIsNotKeptToBeCompared) {
    const std::string line = "[a] " + std::string(508, 'x');
    EXPECT_TRUE(limit.Decide(line, now).passes);
    EXPECT_FALSE(limit.Decide(line, now).passes);
    EXPECT_TRUE(limit.Decide(line + "x", now).passes);
    EXPECT_TRUE(limit.Decide(line + "x", now).passes);
}

TEST_F(LineLimitTest, TheTextSaysHowManyLinesAreMissing) {
    EXPECT_EQ(LeftOut("[a]", 3).Text(), "[a]: 3 lines were left out");
    EXPECT_EQ(Repeated("[a]", 1).Text(), "[a]: the last line was repeated once");
    EXPECT_EQ(Repeated("[host] peer 1", 2).Text(), "[host] peer 1: the last line was repeated 2 times");
}

}  // namespace
}  // namespace zumod::host
