#include "validate/waivers.h"

#include <gtest/gtest.h>

#include <sstream>

namespace zumod::validate {
namespace {

Expected<std::vector<Waiver>> Read(const std::string& text) {
    std::istringstream in(text);
    return ReadWaivers(in, "file");
}

Result FailureOf(const char* name) {
    Result result;
    result.check = FindCheck(name);
    result.outcome = Outcome::kFail;
    result.got = "null";
    return result;
}

TEST(Waivers, AreLinesOfCheckLastDayAndReason) {
    const auto waivers = Read("# a comment\n\ndesc.detach 2027-03-31  in the next version \n");
    ASSERT_TRUE(waivers.has_value()) << waivers.error().text;
    ASSERT_EQ(waivers->size(), 1U);
    EXPECT_EQ(waivers->front().check, "desc.detach");
    EXPECT_EQ(waivers->front().last_day, "2027-03-31");
    EXPECT_EQ(waivers->front().reason, "in the next version ");
}

TEST(Waivers, WithAMistakeAreRefusedByFileAndLine) {
    EXPECT_EQ(Read("# one\nno.check 2027-03-31 why\n").error().text,
              "file:2: there is no check \"no.check\"");
    EXPECT_EQ(Read("desc.detach 31.3.2027 why\n").error().text, "file:1: the last day is not YYYY-MM-DD");
    EXPECT_EQ(Read("desc.detach 2027-03-31\n").error().text, "file:1: a reason is missing");
    EXPECT_EQ(Read("desc.detach 2027-03-31\n").error().status, kExitUsage);
}

TEST(Waivers, TurnAFailureIntoAWaivedResultUntilTheirLastDay) {
    const std::vector<Waiver> waivers = {{"desc.detach", "2027-03-31", "soon"}};
    Result result = FailureOf("desc.detach");
    ApplyWaivers(waivers, "2027-03-31", result);
    EXPECT_EQ(result.outcome, Outcome::kWaived);
    EXPECT_EQ(result.got, "until 2027-03-31: soon");
}

TEST(Waivers, ThatHaveExpiredLeaveTheFailureAndAreNamed) {
    const std::vector<Waiver> waivers = {{"desc.detach", "2027-03-31", "soon"}};
    Result result = FailureOf("desc.detach");
    ApplyWaivers(waivers, "2027-04-01", result);
    EXPECT_EQ(result.outcome, Outcome::kFail);
    EXPECT_EQ(result.got, "null (the waiver expired on 2027-03-31)");
}

TEST(Waivers, ChangeNoOtherCheckAndNoPass) {
    const std::vector<Waiver> waivers = {{"desc.detach", "2027-03-31", "soon"}};
    Result other = FailureOf("desc.name");
    ApplyWaivers(waivers, "2027-01-01", other);
    EXPECT_EQ(other.outcome, Outcome::kFail);
    Result passed = FailureOf("desc.detach");
    passed.outcome = Outcome::kPass;
    ApplyWaivers(waivers, "2027-01-01", passed);
    EXPECT_EQ(passed.outcome, Outcome::kPass);
}

}  // namespace
}  // namespace zumod::validate
