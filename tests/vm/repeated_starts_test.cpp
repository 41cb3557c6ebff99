// Opens and closes a camera many times in one session: the process holds the same afterwards as before.
#include <gtest/gtest.h>

#include <fstream>
#include <ostream>

#include "tests/support/watch/process_state.h"
#include "tests/vm/driver_session.h"
#include "tests/vm/vivid_cameras.h"

namespace zumod::testing {
namespace {

struct Held {
    std::ptrdiff_t descriptors;
    std::ptrdiff_t threads;
    int mappings;

    bool operator==(const Held&) const = default;
};

void PrintTo(const Held& held, std::ostream* out) {
    *out << held.descriptors << " descriptors, " << held.threads << " threads, " << held.mappings
         << " mappings";
}

int CountMappings(const std::string& of) {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        count += line.find(of) != std::string::npos ? 1 : 0;
    }
    return count;
}

long ResidentKilobytes() {
    std::ifstream status("/proc/self/status");
    long size = 0;
    for (std::string word; status >> word;) {
        if (word == "VmRSS:") {
            status >> size;
        }
    }
    return size;
}

class RepeatedStarts : public DriverSession, public ::testing::WithParamInterface<int> {
protected:
    void OpenAndClose() {
        ASSERT_EQ(Open(kDefaultRequest), uint32_t{kCameraOpen});
        ASSERT_TRUE(FramesCome(0, 1));
        ASSERT_EQ(Close(0), uint32_t{kCameraClosed});
        ASSERT_EQ(CountMappings("/dev/video"), 0);
        ASSERT_EQ(Complaints(0), std::vector<std::string>{});
        // Hundreds of lines per opening would increase the memory in use.
        const std::lock_guard guard(runtime.mutex);
        runtime.lines.clear();
    }
    static Held HeldNow() { return {CountDescriptors(), CountThreads(), CountMappings("")}; }
};

TEST_P(RepeatedStarts, LeaveNoDescriptorNoThreadAndNoMapping) {
    // The first few openings create the allocator's mappings.
    for (int i = 0; i < 10; ++i) {
        ASSERT_NO_FATAL_FAILURE(OpenAndClose());
    }
    const Held held = HeldNow();
    const long resident = ResidentKilobytes();
    for (int i = 0; i < GetParam(); ++i) {
        ASSERT_NO_FATAL_FAILURE(OpenAndClose());
    }
    EXPECT_TRUE(ThreadsComeTo(held.threads));
    EXPECT_EQ(HeldNow(), held);
    std::printf(
        "[figure] %d openings: %td descriptors, %td threads, %d mappings, memory from %ld to %ld KiB\n",
        GetParam(), held.descriptors, held.threads, held.mappings, resident, ResidentKilobytes());
}

INSTANTIATE_TEST_SUITE_P(Usual, RepeatedStarts, ::testing::Values(30));
INSTANTIATE_TEST_SUITE_P(Full, RepeatedStarts, ::testing::Values(300));

}  // namespace
}  // namespace zumod::testing
