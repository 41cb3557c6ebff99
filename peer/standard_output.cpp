#include "peer/standard_output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "peer/peer_error.h"

namespace zumod::peer {

size_t StandardOutput::WriteSome(std::span<const uint8_t> bytes) {
    size_t written = 0;
    if (m_writable && !bytes.empty()) {
        const ssize_t count = write(STDOUT_FILENO, bytes.data(), std::min<size_t>(bytes.size(), PIPE_BUF));
        if (count < 0 && errno == EPIPE) {
            throw OutputClosed();
        }
        if (count < 0 && errno != EAGAIN && errno != EINTR) {
            // NOLINTNEXTLINE(concurrency-mt-unsafe): the program has one thread
            throw PeerError(std::string("standard output: ") + std::strerror(errno));
        }
        written = static_cast<size_t>(std::max<ssize_t>(count, 0));
        m_writable = false;
    }
    if (written < bytes.size() && !m_registration) {
        m_registration = m_waiter.Watch(STDOUT_FILENO, POLLOUT, [this] {
            m_writable = true;
            m_registration.Reset();
        });
    }
    return written;
}

void StandardOutput::Write(const std::string& text) {
    std::span<const uint8_t> rest(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    for (;;) {
        rest = rest.subspan(WriteSome(rest));
        if (rest.empty()) {
            return;
        }
        if (m_waiter.Wait(Clock::time_point::max()) == Waiter::Result::kSignal) {
            throw Interrupted();
        }
    }
}

}  // namespace zumod::peer
