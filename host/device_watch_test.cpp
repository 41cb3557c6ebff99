#include "host/device_watch.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/process/work_directory.h"

namespace zumod::host {
namespace {

class DeviceWatchTest : public ::testing::Test {
protected:
    std::string Make(const std::string& name) {
        std::ofstream(work / name).put('x');
        return work / name;
    }
    std::vector<uint32_t> FindGone(const std::map<uint32_t, std::string>& open) {
        return watch.FindGone(open, now);
    }

    const testing::WorkDirectory work;
    Waiter waiter{nullptr};
    DeviceWatch watch{waiter, work.Path()};
    Clock::time_point now{std::chrono::seconds(1000)};
};

TEST_F(DeviceWatchTest, AFileThatIsRemovedOrReplacedIsGone) {
    const std::map<uint32_t, std::string> open = {{0, Make("one")}, {1, Make("two")}, {2, Make("three")}};
    EXPECT_EQ(FindGone(open), std::vector<uint32_t>());
    // Made while the other one exists, so it has another inode.
    std::filesystem::rename(Make("new"), work / "one");
    std::filesystem::remove(work / "three");
    EXPECT_EQ(FindGone(open), (std::vector<uint32_t>{0, 2}));
}

TEST_F(DeviceWatchTest, AReplacedFileStaysGoneUntilItsCameraIsClosed) {
    const std::map<uint32_t, std::string> open = {{0, Make("one")}};
    FindGone(open);
    std::filesystem::rename(Make("new"), work / "one");
    EXPECT_EQ(FindGone(open), (std::vector<uint32_t>{0}));
    EXPECT_EQ(FindGone(open), (std::vector<uint32_t>{0}));
}

TEST_F(DeviceWatchTest, AFileThatCameBackIsThereForACameraThatIsOpenedAgain) {
    const std::map<uint32_t, std::string> open = {{0, Make("one")}};
    EXPECT_EQ(FindGone(open), std::vector<uint32_t>());
    std::filesystem::rename(Make("new"), work / "one");
    EXPECT_EQ(FindGone({}), std::vector<uint32_t>());
    EXPECT_EQ(FindGone(open), std::vector<uint32_t>());
}

TEST_F(DeviceWatchTest, ACameraWhoseFileIsNotKnownIsNotGone) {
    EXPECT_EQ(FindGone({{0, ""}}), std::vector<uint32_t>());
}

TEST_F(DeviceWatchTest, ARemovedFileMakesTheNextLookDueAtOnce) {
    Make("one");
    FindGone({});
    ASSERT_GT(watch.NextTime(), now);
    std::filesystem::remove(work / "one");
    ASSERT_TRUE(waiter.Wait(Clock::now() + std::chrono::seconds(60)));
    EXPECT_LE(watch.NextTime(), now);
}

TEST_F(DeviceWatchTest, FilesAreLookedAtEachSecond) {
    EXPECT_LE(watch.NextTime(), now) << "at once for the first camera";
    FindGone({});
    EXPECT_EQ(watch.NextTime(), now + std::chrono::seconds(1));
}

}  // namespace
}  // namespace zumod::host
