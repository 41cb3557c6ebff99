#include "common/waiter.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <system_error>
#include <utility>

namespace zumod {
namespace {

// Returns whether a descriptor is ready; false at the deadline. Retries on EINTR.
bool PollUntil(std::vector<pollfd>& polled, Clock::time_point deadline) {
    for (;;) {
        // Rounded up: a wait that ended a little early would be followed by one of zero length.
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        const int milliseconds = static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
        const int ready = poll(polled.data(), polled.size(), milliseconds);
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "poll");
        }
        if (Clock::now() >= deadline) {
            return false;
        }
    }
}

}  // namespace

std::string SecondsText(Clock::duration duration) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", std::chrono::duration<double>(duration).count());
    return text;
}

Waiter::Registration Waiter::Watch(int descriptor, short events, Callback on_ready) {
    auto source = std::make_shared<const Source>(Source{descriptor, events, std::move(on_ready)});
    m_sources.push_back(source);
    return source;
}

Expected<bool> Waiter::Wait(Clock::time_point deadline) {
    std::erase_if(m_sources, [](const auto& source) { return source.expired(); });
    // poll() ignores a negative descriptor.
    std::vector<pollfd> polled = {{m_signals != nullptr ? m_signals->Descriptor() : -1, POLLIN, 0}};
    for (const auto& source : m_sources) {
        const Registration registered = source.lock();
        polled.push_back({registered->descriptor, registered->events, 0});
    }
    if (!PollUntil(polled, deadline)) {
        return false;
    }
    if (polled[0].revents != 0 && m_signals->Consume()) {
        return Fail(Interrupted());
    }
    // By index: a callback may add sources. lock() skips one that a callback has removed, and keeps the one
    // that runs alive if it removes itself.
    for (size_t i = 1; i < polled.size(); ++i) {
        if (const Registration source = m_sources[i - 1].lock(); source && polled[i].revents != 0) {
            source->on_ready();
        }
    }
    return true;
}

Expected<bool> Waiter::WaitFor(int descriptor, short events, Clock::time_point deadline) {
    bool ready = false;
    const Registration registration = Watch(descriptor, events, [&ready] { ready = true; });
    for (;;) {
        auto result = Wait(deadline);
        if (!result || !*result || ready) {
            return result;
        }
    }
}

}  // namespace zumod
