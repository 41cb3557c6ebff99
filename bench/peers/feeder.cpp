// Feeds a virtual camera with the noisy natural clip by a FIFO. Each picture gets the stamp of the virtual
// cameras, with the time right before it is written. Prints "ready" when the clip is painted, and ends when
// the camera does.
//
//     peers_feeder FIFO WIDTH HEIGHT RATE
//
// Thread rule: one thread.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "bench/clips.h"
#include "bench/require.h"
#include "common/picture_stamp.h"

namespace zumod::bench {
namespace {

using Clock = std::chrono::steady_clock;

// They are shown forwards and backwards, because painting one takes longer than encoding it.
constexpr int kPictures = 30;

void PaintStamp(uint8_t* luma, int width, int height, uint32_t counter) {
    const auto now = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch());
    const StampPattern bits = EncodeStamp({counter, static_cast<uint64_t>(now.count())});
    const StampGrid grid = StampGrid::For(static_cast<unsigned>(width), static_cast<unsigned>(height));
    for (unsigned bit = 0; bit < kStampBits; ++bit) {
        uint8_t* const block = luma + size_t{bit / grid.columns} * grid.block * static_cast<unsigned>(width) +
                               bit % grid.columns * grid.block;
        for (unsigned y = 0; y < grid.block; ++y) {
            std::fill_n(block + size_t{y} * static_cast<unsigned>(width), grid.block,
                        bits[bit] ? kStampWhite : kStampBlack);
        }
    }
}

void Run(const char* fifo, int width, int height, int rate) {
    NaturalClip clip(width, height);
    std::vector<std::vector<uint8_t>> pictures(kPictures);
    for (uint32_t number = 0; number < kPictures; ++number) {
        pictures[number].resize(static_cast<size_t>(width) * static_cast<size_t>(height) * 3 / 2);
        clip.Paint(pictures[number].data(), number);
    }
    std::puts("ready");
    std::fflush(stdout);
    const int fd = open(fifo, O_WRONLY | O_CLOEXEC);
    Require(fd >= 0, "the FIFO does not open");
    const std::chrono::microseconds period(1'000'000 / rate);
    auto due = Clock::now();
    for (uint32_t counter = 0;; ++counter) {
        const uint32_t place = counter % (2 * kPictures - 2);
        std::vector<uint8_t>& picture = pictures[std::min(place, 2 * kPictures - 2 - place)];
        std::this_thread::sleep_until(due);
        // While no program streams, the FIFO is full. The time that this takes is not made up for.
        due = std::max(due, Clock::now() - period) + period;
        PaintStamp(picture.data(), width, height, counter);
        for (size_t done = 0; done < picture.size();) {
            const ssize_t count = write(fd, picture.data() + done, picture.size() - done);
            if (count < 0) {
                return;
            }
            done += static_cast<size_t>(count);
        }
    }
}

}  // namespace
}  // namespace zumod::bench

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    if (argc != 5) {
        std::fprintf(stderr, "peers_feeder: needs four arguments\n");
        return 2;
    }
    try {
        zumod::bench::Run(argv[1], std::stoi(argv[2]), std::stoi(argv[3]), std::stoi(argv[4]));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "peers_feeder: %s\n", error.what());
        return 1;
    }
}
