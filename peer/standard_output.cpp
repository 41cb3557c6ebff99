#include "peer/standard_output.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

namespace zumod::peer {

Expected<size_t> StandardOutput::WriteSome(std::span<const uint8_t> bytes) {
    size_t written = 0;
    if (!bytes.empty() && std::exchange(m_writable, false)) {
        const ssize_t count = write(m_descriptor, bytes.data(), std::min<size_t>(bytes.size(), PIPE_BUF));
        if (count >= 0) {
            written = static_cast<size_t>(count);
        } else if (errno == EPIPE) {
            return Fail(OutputClosed());
        } else if (errno != EAGAIN && errno != EINTR) {
            return Fail("standard output: " + ErrnoText(errno));
        }
    }
    if (written < bytes.size() && !m_registration) {
        m_registration = m_waiter.Watch(m_descriptor, POLLOUT, [this] {
            m_writable = true;
            m_registration.reset();
        });
    }
    return written;
}

Expected<void> StandardOutput::Write(const std::string& text) {
    std::span<const uint8_t> rest(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    for (;;) {
        const auto written = WriteSome(rest);
        if (!written) {
            return Fail(written.error());
        }
        rest = rest.subspan(*written);
        if (rest.empty()) {
            return {};
        }
        if (const auto waited = m_waiter.Wait(Clock::time_point::max()); !waited) {
            return Fail(waited.error());
        }
    }
}

void StandardOutput::Offer(const std::string& text) {
    WriteOffered();
    if (m_offered.empty()) {
        m_offered = text;
        WriteOffered();
    }
}

Expected<void> StandardOutput::Print(const std::string& text) {
    if (!IsTerminal()) {
        return Write(text);
    }
    Offer(text);
    return {};
}

void StandardOutput::WriteOffered() {
    pollfd polled{m_descriptor, POLLOUT, 0};
    while (!m_offered.empty() && poll(&polled, 1, 0) == 1) {
        const ssize_t count =
            write(m_descriptor, m_offered.data(), std::min<size_t>(m_offered.size(), PIPE_BUF));
        if (count <= 0) {
            // Not ready after all, or nobody reads any more.
            return;
        }
        m_offered.erase(0, static_cast<size_t>(count));
    }
}

}  // namespace zumod::peer
