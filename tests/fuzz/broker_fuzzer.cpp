// Lets several peers use the broker in any order of steps: they join, leave, send requests in pieces and take
// what they get, the plugin answers and delivers frames, and time passes. BrokerWorld checks after each step.
//
// Input: steps. The first byte of a step says what happens, the next ones are its operands; missing ones are
// 0.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <span>

#include "tests/fuzz/broker_world.h"

namespace zumod::testing {
namespace {

using std::chrono::milliseconds;
using World = BrokerWorld;

// For each input, to bound its time.
constexpr size_t kMostSteps = 400;
constexpr size_t kMostFrameBytes = 20'000'000;

class Input {
public:
    explicit Input(std::span<const uint8_t> bytes) : m_rest(bytes) {}

    bool IsEmpty() const { return m_rest.empty(); }
    uint8_t Next() {
        if (m_rest.empty()) {
            return 0;
        }
        const uint8_t byte = m_rest.front();
        m_rest = m_rest.subspan(1);
        return byte;
    }
    Bytes Next(size_t count) {
        const auto piece = m_rest.first(std::min(count, m_rest.size()));
        m_rest = m_rest.subspan(piece.size());
        return {piece.begin(), piece.end()};
    }

private:
    std::span<const uint8_t> m_rest;
};

Bytes Request(World& world, uint8_t type, uint8_t camera, uint8_t format) {
    const uint32_t id = camera % (World::kCameras + 1);  // one more than there are
    const uint32_t width = format % 2 == 0 ? 640 : 320;
    const uint32_t rate = format % 3 == 0 ? 30 : 1;
    switch (type % 6) {
        case 0:
            return OpenBytes(id, width, 480, rate);
        case 1:
            return CloseBytes(id);
        case 2:
            return SetFormatBytes(id, width, 480, rate);
        case 3:
            return SetPropertyBytes(static_cast<uint8_t>(id));
        case 4:
            return MessageBytes(1, Number32(world.NextSerial()));
        default:
            return MessageBytes(10, Number32(world.NextSerial()));
    }
}

// 255: everything.
size_t Count(uint8_t byte, size_t unit) {
    return byte == 255 ? SIZE_MAX : byte * unit;
}

void Deliver(World& world, Input& input, size_t& frame_bytes) {
    static constexpr size_t kSizes[] = {0, 2'000, 60'000, 250'000};
    const uint32_t camera = input.Next() % World::kCameras;
    const uint8_t what = input.Next();
    const size_t size = kSizes[what / 3 % 4];
    size_t count = input.Next() % 128 + size_t{1};
    const unsigned readers = input.Next();
    count = std::min(count, (kMostFrameBytes - frame_bytes) / (size + 100));
    frame_bytes += count * (size + 100);
    world.Deliver(camera, static_cast<World::Kind>(what % 3), size, count, readers);
}

void Step(World& world, Input& input, size_t& frame_bytes) {
    static constexpr milliseconds kTimes[] = {
        milliseconds(1),      milliseconds(100),    milliseconds(1'000),  milliseconds(3'000),
        milliseconds(10'000), milliseconds(20'000), milliseconds(60'000), milliseconds(0)};
    switch (input.Next() % 15) {
        case 0:
            world.Join();
            break;
        case 1:
            world.Leave(input.Next());
            break;
        case 2: {  // a request that arrives later
            const uint8_t peer = input.Next();
            const uint8_t type = input.Next();
            const uint8_t camera = input.Next();
            world.Ask(peer, Request(world, type, camera, input.Next()));
            break;
        }
        case 3: {  // requests that arrive at once
            const uint8_t peer = input.Next();
            const uint8_t type = input.Next();
            const uint8_t camera = input.Next();
            const uint8_t format = input.Next();
            for (size_t i = input.Next() + size_t{1}; i != 0; --i) {
                world.Ask(peer, Request(world, type, camera, format));
            }
            world.Arrive(peer, SIZE_MAX);
            break;
        }
        case 4: {
            const uint8_t peer = input.Next();
            world.Arrive(peer, Count(input.Next(), 1));
            break;
        }
        case 5: {  // any bytes
            const uint8_t peer = input.Next();
            world.Ask(peer, input.Next(input.Next() % 32U));
            break;
        }
        case 6: {
            const uint8_t peer = input.Next();
            world.Take(peer, Count(input.Next(), 1));
            break;
        }
        case 7: {
            const uint8_t peer = input.Next();
            world.Take(peer, Count(input.Next(), 16'000));
            break;
        }
        case 8:
            world.NextRequest();
            break;
        case 9:
            world.AnswerRequest(static_cast<World::Answer>(input.Next() % 3));
            break;
        case 10:
            Deliver(world, input, frame_bytes);
            break;
        case 11:
            world.MoveClock(kTimes[input.Next() % std::size(kTimes)]);
            break;
        case 12: {
            const uint8_t peer = input.Next();
            if (input.Next() % 2 == 0) {
                world.EndInput(peer);
            } else {
                world.End(peer);
            }
            break;
        }
        case 13:
            world.WriteMalformed(input.Next(input.Next() % 32U));
            break;
        default:
            world.Settle();
    }
    world.Check();
}

}  // namespace
}  // namespace zumod::testing

// Freed memory is kept for detection, but not so much that the system spends its time on it.
extern "C" const char* __asan_default_options() {
    return "quarantine_size_mb=16";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    zumod::testing::Input input({data, size});
    zumod::testing::BrokerWorld world;
    size_t frame_bytes = 0;
    for (size_t steps = 0; !input.IsEmpty() && steps < zumod::testing::kMostSteps; ++steps) {
        zumod::testing::Step(world, input, frame_bytes);
    }
    world.Finish();
    return 0;
}
