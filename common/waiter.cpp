#include "common/waiter.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <system_error>

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

void Waiter::Registration::Reset() {
    if (m_waiter != nullptr) {
        std::erase_if(std::exchange(m_waiter, nullptr)->m_sources,
                      [this](const Source& source) { return source.id == m_id; });
    }
}

Waiter::Registration Waiter::Watch(int descriptor, short events, Callback on_ready) {
    m_sources.push_back({++m_last_id, descriptor, events, std::move(on_ready)});
    return {this, m_last_id};
}

Expected<bool> Waiter::Wait(Clock::time_point deadline) {
    // poll() ignores a negative descriptor.
    std::vector<pollfd> polled = {{m_signals != nullptr ? m_signals->Descriptor() : -1, POLLIN, 0}};
    std::vector<uint64_t> ids = {0};
    for (const Source& source : m_sources) {
        polled.push_back({source.descriptor, source.events, 0});
        ids.push_back(source.id);
    }
    if (!PollUntil(polled, deadline)) {
        return false;
    }
    if (polled[0].revents != 0 && m_signals->Consume()) {
        return tl::make_unexpected(Interrupted());
    }
    for (size_t i = 1; i < polled.size(); ++i) {
        if (polled[i].revents != 0) {
            Call(ids[i]);
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

void Waiter::Call(uint64_t id) {
    const auto source = std::find_if(m_sources.begin(), m_sources.end(),
                                     [id](const Source& candidate) { return candidate.id == id; });
    if (source != m_sources.end()) {
        // A copy: the callback may remove its own registration.
        const Callback on_ready = source->on_ready;
        on_ready();
    }
}

}  // namespace zumod
