#include "peer/recording_name.h"

#include <gtest/gtest.h>

#include <memory>

#include "tests/support/process/scoped_environment.h"

namespace zumod::peer {
namespace {

TEST(RecordingName, GetsANumberInFrontOfItsExtension) {
    EXPECT_EQ(NumberedName("a/film.mp4", 1), "a/film.mp4");
    EXPECT_EQ(NumberedName("a/film.mp4", 2), "a/film-002.mp4");
    EXPECT_EQ(NumberedName("a.b/film.mkv", 1234), "a.b/film-1234.mkv");
}

TEST(RecordingName, ContainsTheLocalTime) {
    // On the heap: otherwise GCC 12 warns falsely about its members.
    const auto zone = std::make_unique<testing::ScopedTimeZone>("XXX-1");
    // 2001-09-09 01:46:40 UTC.
    EXPECT_EQ(ExpandName("%Y-%m-%d_%H-%M-%S.mp4", 1'000'000'000), "2001-09-09_02-46-40.mp4");
    EXPECT_EQ(ExpandName("100%%.mp4", 0), "100%.mp4");
    EXPECT_EQ(ExpandName("film.mp4", 0), "film.mp4");
}

TEST(RecordingName, IsEmptyIfItWouldBeTooLongForAPath) {
    std::string pattern;
    for (int i = 0; i < 1100; ++i) {
        pattern += "%Y";
    }
    EXPECT_EQ(ExpandName(pattern, 0), "");
}

}  // namespace
}  // namespace zumod::peer
