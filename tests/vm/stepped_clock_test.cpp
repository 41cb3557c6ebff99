// The plugin's stop while the machine's clock is set back.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/support/watch/process_state.h"
#include "tests/support/watch/wait_until.h"
#include "tests/vm/driver_session.h"

namespace zumod::testing {
namespace {

// Longer than WaitUntil waits, so that a stop that waits for the old time is noticed.
constexpr time_t kStep = 60;

void StepWallClock(time_t seconds) {
    timespec now{};
    ASSERT_EQ(clock_gettime(CLOCK_REALTIME, &now), 0);
    now.tv_sec += seconds;
    ASSERT_EQ(clock_settime(CLOCK_REALTIME, &now), 0);
}

// Whether every thread but this one waits. The send thread then waits for a frame.
bool OtherThreadsSleep() {
    for (const auto& each : std::filesystem::directory_iterator("/proc/self/task")) {
        const pid_t thread = std::stoi(each.path().filename());
        if (thread != gettid() && !IsAsleep(thread)) {
            return false;
        }
    }
    return true;
}

using SteppedClock = DriverSession;

TEST_F(SteppedClock, ExitInstanceDoesNotWaitForTheOldTime) {
    peer->Hang();
    ASSERT_TRUE(WaitUntil([this] { return CountLines("[cameraclient] Run return") == 1; }));
    ASSERT_TRUE(WaitUntil(OtherThreadsSleep));
    std::atomic<bool> has_exited{false};
    StepWallClock(-kStep);
    std::thread exit([&] {
        EXPECT_EQ(raw::Call<int>(plugin, 7), 0);
        has_exited = true;
    });
    EXPECT_TRUE(WaitUntil([&] { return has_exited.load(); }));
    exit.join();
    StepWallClock(kStep);
}

}  // namespace
}  // namespace zumod::testing
