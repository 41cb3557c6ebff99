#include "vcam/model/faults.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <cerrno>
#include <set>
#include <vector>

namespace zumod::vcam {
namespace {

struct Spelling {
    const char* text;
    Fault fault;
};

class EveryFault : public ::testing::TestWithParam<Spelling> {};

TEST_P(EveryFault, IsParsedIntoItsFields) {
    EXPECT_EQ(ParseFault(GetParam().text).value(), GetParam().fault);
}

const std::vector<Spelling>& Spellings() {
    using enum FaultKind;
    static const std::vector<Spelling> spellings = {
        {"unplug", {.kind = kUnplug}},
        {"unplug/30", {.kind = kUnplug, .first = 30}},
        {"replug", {.kind = kReplug}},
        {"replug/250", {.kind = kReplug, .value = 250}},
        {"replug-as/4", {.kind = kReplugAs, .value2 = 4}},
        {"replug-as/4/250", {.kind = kReplugAs, .value = 250, .value2 = 4}},
        {"errno/DQBUF/EIO", {.kind = kErrno, .first = 1, .request = VIDIOC_DQBUF, .error = EIO}},
        {"errno/VIDIOC_S_FMT/EBUSY/3/2",
         {.kind = kErrno, .first = 3, .count = 2, .request = VIDIOC_S_FMT, .error = EBUSY}},
        {"open-busy", {.kind = kOpenBusy, .first = 1, .request = kOpenCall, .error = EBUSY}},
        {"format-busy/2",
         {.kind = kFormatBusy, .first = 1, .count = 2, .request = VIDIOC_S_FMT, .error = EBUSY}},
        {"buffers-busy/0",
         {.kind = kBuffersBusy, .first = 1, .count = 0, .request = VIDIOC_REQBUFS, .error = EBUSY}},
        {"stream-busy", {.kind = kStreamBusy, .first = 1, .request = VIDIOC_STREAMON, .error = EBUSY}},
        {"eintr-storm",
         {.kind = kEintrStorm, .first = 1, .count = 100, .request = VIDIOC_DQBUF, .error = EINTR}},
        {"eintr-storm/7",
         {.kind = kEintrStorm, .first = 1, .count = 7, .request = VIDIOC_DQBUF, .error = EINTR}},
        {"eagain-storm/7",
         {.kind = kEagainStorm, .first = 1, .count = 7, .request = VIDIOC_DQBUF, .error = EAGAIN}},
        {"readable-empty/2/3", {.kind = kReadableEmpty, .first = 2, .count = 3}},
        {"short", {.kind = kShort, .value = 50}},
        {"short/1/2", {.kind = kShort, .first = 1, .count = 2, .value = 50}},
        {"short/1/2/25", {.kind = kShort, .first = 1, .count = 2, .value = 25}},
        {"zero/4", {.kind = kZero, .first = 4}},
        {"long", {.kind = kLong, .value = 4096}},
        {"long/4/5/6", {.kind = kLong, .first = 4, .count = 5, .value = 6}},
        {"error-flag/2/0", {.kind = kErrorFlag, .first = 2, .count = 0}},
        {"bad-index", {.kind = kBadIndex, .value = 1000}},
        {"bad-index/1/1/4", {.kind = kBadIndex, .first = 1, .value = 4}},
        {"stall/1500/10", {.kind = kStall, .first = 10, .value = 1500}},
        {"no-frames", {.kind = kNoFrames}},
        {"too-fast", {.kind = kTooFast, .value = 4}},
        {"too-fast/8", {.kind = kTooFast, .value = 8}},
        {"drop/3/2", {.kind = kDrop, .first = 3, .count = 2}},
        {"drop-every/5", {.kind = kDropEvery, .value = 5}},
        {"sequence-wrap", {.kind = kSequenceWrap, .value = 10}},
        {"sequence-wrap/4", {.kind = kSequenceWrap, .value = 4}},
        {"time-wrap", {.kind = kTimeWrap, .value = 500}},
        {"time-wrap/20", {.kind = kTimeWrap, .value = 20}},
        {"time-back", {.kind = kTimeBack, .value = 1000}},
        {"time-back/2/1/50", {.kind = kTimeBack, .first = 2, .value = 50}},
        {"repeat", {.kind = kRepeat, .first = 1}},
        {"repeat/5", {.kind = kRepeat, .first = 5}},
        {"size-change/320/240", {.kind = kSizeChange, .value = 320, .value2 = 240}},
        {"stride-change", {.kind = kStrideChange, .value = 64}},
        {"stride-change/32", {.kind = kStrideChange, .value = 32}},
        {"fatal/3", {.kind = kFatal, .first = 3}},
        {"grant/1", {.kind = kGrant, .value = 1}},
        {"slow-open/200", {.kind = kSlowOpen, .value = 200}},
    };
    return spellings;
}

INSTANTIATE_TEST_SUITE_P(Faults, EveryFault, ::testing::ValuesIn(Spellings()));

TEST(Faults, AreAllSpelledInTheTestAbove) {
    std::set<FaultKind> spelled;
    for (const Spelling& spelling : Spellings()) {
        spelled.insert(spelling.fault.kind);
    }
    for (const FaultRow& row : FaultRows()) {
        EXPECT_EQ(spelled.count(row.defaults.kind), 1U) << row.name;
    }
    EXPECT_EQ(FaultRows().size(), 30U);
}

std::string ErrorOf(const char* text) {
    const auto fault = ParseFault(text);
    return fault ? "no error" : fault.error().text;
}

TEST(Faults, ReportAnErrorInOneLine) {
    EXPECT_EQ(ErrorOf("nonsense"), "unknown fault \"nonsense\"");
    EXPECT_EQ(ErrorOf("errno/DQBUF"),
              "fault errno needs a known request and a known error, as in errno/DQBUF/EIO");
    EXPECT_EQ(ErrorOf("errno/FLY/EIO"),
              "fault errno needs a known request and a known error, as in errno/DQBUF/EIO");
    EXPECT_EQ(ErrorOf("grant"), "fault grant needs N");
    EXPECT_EQ(ErrorOf("drop/x"), "fault drop: \"x\" is not a number");
    EXPECT_EQ(ErrorOf("unplug/1/2"), "fault unplug takes no \"2\"");
    EXPECT_EQ(ErrorOf("errno/DQBUF/EIO/1/1/2"), "fault errno takes no \"2\"");
}

TEST(Faults, NameTheirArgumentsAsAUserWritesThem) {
    EXPECT_EQ(ArgumentsText(RowOf(FaultKind::kErrno)), "REQUEST/ERROR/FIRST/COUNT");
    EXPECT_EQ(ArgumentsText(RowOf(FaultKind::kReplugAs)), "NUMBER/MS");
    EXPECT_EQ(ArgumentsText(RowOf(FaultKind::kNoFrames)), "");
}

TEST(Faults, CoverARangeOrAllFromTheFirstOn) {
    EXPECT_FALSE((Fault{.first = 3, .count = 2}.Covers(2)));
    EXPECT_TRUE((Fault{.first = 3, .count = 2}.Covers(3)));
    EXPECT_TRUE((Fault{.first = 3, .count = 2}.Covers(4)));
    EXPECT_FALSE((Fault{.first = 3, .count = 2}.Covers(5)));
    EXPECT_TRUE((Fault{.first = 3, .count = 0}.Covers(5000000000)));
}

}  // namespace
}  // namespace zumod::vcam
