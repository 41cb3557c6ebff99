#include "common/waiter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>

#include "common/process_setup.h"
#include "common/unique_fd.h"

namespace zumod {
namespace {

struct Pipe {
    Pipe() {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        read_end.Reset(ends[0]);
        write_end.Reset(ends[1]);
    }
    void Put() const { EXPECT_EQ(write(write_end.Get(), "x", 1), 1); }
    void Take() const {
        char byte = 0;
        EXPECT_EQ(read(read_end.Get(), &byte, 1), 1);
    }

    UniqueFd read_end;
    UniqueFd write_end;
};

// In the past, so that no test waits.
const Clock::time_point kNow{};
constexpr Clock::time_point kNever = Clock::time_point::max();

TEST(Waiter, TimesOutWhenNothingIsReady) {
    Waiter waiter;
    const Pipe pipe;
    const auto registration = waiter.Watch(pipe.read_end.Get(), POLLIN, [] { ADD_FAILURE(); });
    EXPECT_EQ(waiter.Wait(kNow), false);
    EXPECT_EQ(waiter.Wait(Clock::now() + std::chrono::milliseconds(1)), false);
}

TEST(Waiter, WaitsNoShorterThanTheDeadline) {
    Waiter waiter;
    const auto deadline = Clock::now() + std::chrono::microseconds(1500);
    EXPECT_EQ(waiter.Wait(deadline), false);
    EXPECT_GE(Clock::now(), deadline);
}

TEST(Waiter, CallsEveryReadySourceAlsoAfterTheDeadline) {
    Waiter waiter;
    const Pipe pipes[3];
    std::vector<int> called;
    std::vector<Waiter::Registration> registrations;
    for (int i = 0; i < 3; ++i) {
        registrations.push_back(waiter.Watch(pipes[i].read_end.Get(), POLLIN, [&, i] {
            called.push_back(i);
            pipes[i].Take();
        }));
    }
    pipes[2].Put();
    pipes[0].Put();
    EXPECT_EQ(waiter.Wait(kNow), true);
    EXPECT_EQ(called, (std::vector<int>{0, 2}));
    EXPECT_EQ(waiter.Wait(kNow), false);
}

TEST(Waiter, ReportsAHangUpAsReady) {
    Waiter waiter;
    Pipe pipe;
    int calls = 0;
    const auto registration = waiter.Watch(pipe.read_end.Get(), POLLIN, [&] { ++calls; });
    pipe.write_end.Reset();
    EXPECT_EQ(waiter.Wait(kNever), true);
    EXPECT_EQ(calls, 1);
}

TEST(Waiter, ForgetsASourceWithItsRegistration) {
    Waiter waiter;
    const Pipe pipe;
    pipe.Put();
    auto registration = waiter.Watch(pipe.read_end.Get(), POLLIN, [] { ADD_FAILURE(); });
    Waiter::Registration moved = std::move(registration);
    EXPECT_TRUE(moved);
    moved.reset();
    EXPECT_FALSE(moved);
    EXPECT_EQ(waiter.Wait(kNow), false);
}

TEST(Waiter, LetsACallbackRemoveItselfAndOthers) {
    Waiter waiter;
    const Pipe first;
    const Pipe second;
    first.Put();
    second.Put();
    int calls = 0;
    Waiter::Registration a;
    Waiter::Registration b;
    const auto remove_both = [&] {
        ++calls;
        a.reset();
        b.reset();
    };
    a = waiter.Watch(first.read_end.Get(), POLLIN, remove_both);
    b = waiter.Watch(second.read_end.Get(), POLLIN, remove_both);
    EXPECT_EQ(waiter.Wait(kNow), true);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(waiter.Wait(kNow), false);
}

TEST(Waiter, LetsACallbackAddASourceForTheNextRound) {
    Waiter waiter;
    const Pipe pipe;
    pipe.Put();
    int calls = 0;
    Waiter::Registration added;
    Waiter::Registration first = waiter.Watch(pipe.read_end.Get(), POLLIN, [&] {
        first.reset();
        added = waiter.Watch(pipe.read_end.Get(), POLLIN, [&] { ++calls; });
    });
    EXPECT_EQ(waiter.Wait(kNow), true);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(waiter.Wait(kNow), true);
    EXPECT_EQ(calls, 1);
}

TEST(Waiter, ServesOtherSourcesWhileItWaitsForOne) {
    Waiter waiter;
    const Pipe other;
    const Pipe awaited;
    other.Put();
    const auto registration = waiter.Watch(other.read_end.Get(), POLLIN, [&] {
        other.Take();
        awaited.Put();
    });
    EXPECT_EQ(waiter.WaitFor(awaited.read_end.Get(), POLLIN, kNever), true);
    EXPECT_EQ(waiter.WaitFor(other.read_end.Get(), POLLIN, kNow), false);
}

TEST(Waiter, ReportsASignalBeforeAnySourceAndConsumesIt) {
    sigset_t mask_before;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask_before);
    const StopSignals signals;
    Waiter waiter(&signals);
    const Pipe pipe;
    pipe.Put();
    int calls = 0;
    const auto registration = waiter.Watch(pipe.read_end.Get(), POLLIN, [&] { ++calls; });
    raise(SIGINT);
    EXPECT_EQ(waiter.Wait(kNever), Fail(Interrupted()));
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(waiter.Wait(kNever), true);
    EXPECT_EQ(calls, 1);
    raise(SIGINT);
    EXPECT_EQ(waiter.WaitFor(pipe.read_end.Get(), POLLIN, kNever), Fail(Interrupted()));
    pthread_sigmask(SIG_SETMASK, &mask_before, nullptr);
    std::signal(SIGPIPE, SIG_DFL);
}

TEST(SecondsText, HasOneDecimal) {
    EXPECT_EQ(SecondsText(std::chrono::seconds(10)), "10.0 s");
    EXPECT_EQ(SecondsText(std::chrono::milliseconds(2550)), "2.5 s");
}

}  // namespace
}  // namespace zumod
