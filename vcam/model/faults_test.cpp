#include "vcam/model/faults.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <cerrno>
#include <set>

namespace zumod::vcam {
namespace {

struct Spelling {
    const char* text;
    Fault fault;
};

class EveryFault : public ::testing::TestWithParam<Spelling> {};

TEST_P(EveryFault, IsTheSameAsOptionAndAsCall) {
    std::string error;
    const std::optional<Fault> fault = ParseFault(GetParam().text, error);
    ASSERT_TRUE(fault) << error;
    EXPECT_EQ(*fault, GetParam().fault);
}

const std::vector<Spelling>& Spellings() {
    static const std::vector<Spelling> spellings = {
        {"unplug", faults::Unplug()},
        {"unplug/30", faults::Unplug(30)},
        {"replug", faults::Replug()},
        {"replug/250", faults::Replug(250)},
        {"replug-as/4", faults::ReplugAs(4)},
        {"replug-as/4/250", faults::ReplugAs(4, 250)},
        {"errno/DQBUF/EIO", faults::Errno(VIDIOC_DQBUF, EIO)},
        {"errno/VIDIOC_S_FMT/EBUSY/3/2", faults::Errno(VIDIOC_S_FMT, EBUSY, 3, 2)},
        {"open-busy", faults::OpenBusy()},
        {"format-busy/2", faults::FormatBusy(2)},
        {"buffers-busy/0", faults::BuffersBusy(0)},
        {"stream-busy", faults::StreamBusy()},
        {"eintr-storm", faults::EintrStorm()},
        {"eintr-storm/7", faults::EintrStorm(7)},
        {"eagain-storm/7", faults::EagainStorm(7)},
        {"readable-empty/2/3", faults::ReadableEmpty(2, 3)},
        {"short", faults::Short()},
        {"short/1/2/25", faults::Short(1, 2, 25)},
        {"zero/4", faults::Zero(4)},
        {"long/4/5/6", faults::Long(4, 5, 6)},
        {"error-flag/2/0", faults::ErrorFlag(2, 0)},
        {"bad-index", faults::BadIndex()},
        {"bad-index/1/1/4", faults::BadIndex(1, 1, 4)},
        {"stall/1500/10", faults::Stall(1500, 10)},
        {"no-frames", faults::NoFrames()},
        {"too-fast/8", faults::TooFast(8)},
        {"drop/3/2", faults::Drop(3, 2)},
        {"drop-every/5", faults::DropEvery(5)},
        {"sequence-wrap/4", faults::SequenceWrap(4)},
        {"time-wrap/20", faults::TimeWrap(20)},
        {"time-back/2/1/50", faults::TimeBack(2, 1, 50)},
        {"repeat/5", faults::Repeat(5)},
        {"size-change/320/240", faults::SizeChange(320, 240)},
        {"stride-change/32", faults::StrideChange(32)},
        {"fatal/3", faults::Fatal(3)},
        {"grant/1", faults::Grant(1)},
        {"slow-open/200", faults::SlowOpen(200)},
    };
    return spellings;
}

INSTANTIATE_TEST_SUITE_P(Faults, EveryFault, ::testing::ValuesIn(Spellings()));

TEST(Faults, AreAllSpelledInTheTestAbove) {
    std::set<FaultKind> spelled;
    for (const Spelling& spelling : Spellings()) {
        spelled.insert(spelling.fault.kind);
    }
    for (const FaultDescription& description : FaultDescriptions()) {
        EXPECT_EQ(spelled.count(description.kind), 1U) << description.name;
    }
    EXPECT_GE(FaultDescriptions().size(), 25U);
}

std::string ErrorOf(const char* text) {
    std::string error;
    EXPECT_FALSE(ParseFault(text, error)) << text;
    return error;
}

TEST(Faults, SayInOneLineWhatIsWrong) {
    EXPECT_EQ(ErrorOf("nonsense"), "unknown fault \"nonsense\"");
    EXPECT_EQ(ErrorOf("errno/DQBUF"),
              "fault errno needs a known request and a known error, as in errno/DQBUF/EIO");
    EXPECT_EQ(ErrorOf("errno/FLY/EIO"),
              "fault errno needs a known request and a known error, as in errno/DQBUF/EIO");
    EXPECT_EQ(ErrorOf("grant"), "fault grant needs N");
    EXPECT_EQ(ErrorOf("drop/x"), "fault drop: \"x\" is not a number");
    EXPECT_EQ(ErrorOf("unplug/1/2"), "fault unplug takes no \"2\"");
}

TEST(Faults, CoverARangeOrAllFromTheFirstOn) {
    EXPECT_FALSE(faults::Drop(3, 2).Covers(2));
    EXPECT_TRUE(faults::Drop(3, 2).Covers(3));
    EXPECT_TRUE(faults::Drop(3, 2).Covers(4));
    EXPECT_FALSE(faults::Drop(3, 2).Covers(5));
    EXPECT_TRUE(faults::Drop(3, 0).Covers(5000000000));
}

}  // namespace
}  // namespace zumod::vcam
