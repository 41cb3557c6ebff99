#include "peer/standard_output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "peer/peer_error.h"

namespace zumod::peer {

void WriteOut(std::span<const uint8_t> bytes, const StopSignals& signals) {
    while (!bytes.empty()) {
        pollfd waits[] = {{signals.Descriptor(), POLLIN, 0}, {STDOUT_FILENO, POLLOUT, 0}};
        poll(waits, std::size(waits), -1);
        signals.Check();
        if (waits[1].revents == 0) {
            continue;
        }
        // A pipe that can be written to takes this much without blocking.
        const ssize_t count = write(STDOUT_FILENO, bytes.data(), std::min<size_t>(bytes.size(), PIPE_BUF));
        if (count >= 0) {
            bytes = bytes.subspan(static_cast<size_t>(count));
        } else if (errno == EPIPE) {
            throw OutputClosed();
        } else if (errno != EAGAIN && errno != EINTR) {
            // NOLINTNEXTLINE(concurrency-mt-unsafe): the program has one thread
            throw PeerError(std::string("standard output: ") + std::strerror(errno));
        }
    }
}

void WriteOut(const std::string& text, const StopSignals& signals) {
    WriteOut(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()), signals);
}

}  // namespace zumod::peer
