#include "peer/deadline.h"

#include <algorithm>
#include <climits>
#include <cstdio>

namespace zumod::peer {

std::string SecondsText(Clock::duration duration) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", std::chrono::duration<double>(duration).count());
    return text;
}

bool PollUntil(std::span<pollfd> waits, Clock::time_point deadline) {
    // Rounded up: a wait that ends a little early would be followed by one of no time at all.
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    const int milliseconds = static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
    return poll(waits.data(), waits.size(), milliseconds) > 0;
}

}  // namespace zumod::peer
