#include "vcam/model/fifo_input.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cerrno>

#include "common/safe_text.h"

namespace zumod::vcam {
namespace {

// As large as the kernel lets any user make a pipe: a writer seldom waits for the camera server.
constexpr int kPipeSize = 1 << 20;
constexpr size_t kPieceSize = 1 << 16;
constexpr auto kLogInterval = std::chrono::seconds(1);

std::optional<PictureLayout> RawLayout(const LiveSource& source) {
    if (source.kind != LiveSource::kRaw) {
        return std::nullopt;
    }
    return LayOut(source.fourcc, source.size.width, source.size.height);
}

UniqueFd OpenForReading(const std::string& path) {
    return UniqueFd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

}  // namespace

Expected<FifoInput> FifoInput::Open(const LiveSource& source) {
    UniqueFd fd = OpenForReading(source.path);
    if (!fd) {
        return Fail("cannot read " + SafeText(source.path) + ": " + ErrnoText(errno));
    }
    struct stat status {};
    if (fstat(fd.Get(), &status) != 0 || !S_ISFIFO(status.st_mode)) {
        return Fail(SafeText(source.path) + " is not a FIFO");
    }
    return FifoInput(source, std::move(fd));
}

FifoInput::FifoInput(const LiveSource& source, UniqueFd fd)
    : m_path(SafeText(source.path)), m_fd(std::move(fd)), m_stream(RawLayout(source)), m_bytes(kPieceSize) {
    fcntl(m_fd.Get(), F_SETPIPE_SZ, kPipeSize);
}

bool FifoInput::OnReadable(const PictureStream::OnPicture& on_picture, const Log& log) {
    int unread = 0;
    for (int reads = 0; reads < 2 && unread == 0; ++reads) {
        const ssize_t count = read(m_fd.Get(), m_bytes.data(), m_bytes.size());
        if (count == 0) {
            m_stream.Restart();
            return OpenAgain(log);
        }
        if (count < 0) {
            return false;
        }
        ioctl(m_fd.Get(), FIONREAD, &unread);
        const auto fed = m_stream.Feed(std::span(m_bytes).first(static_cast<size_t>(count)), on_picture);
        const auto now = Clock::now();
        if (!fed && now - m_refused >= kLogInterval) {
            m_refused = now;
            Say(log, "refused: " + SafeText(fed.error().text) +
                         ". The last picture stays until another program writes");
        }
    }
    return false;
}

bool FifoInput::OpenAgain(const Log& log) {
    UniqueFd again = OpenForReading("/proc/self/fd/" + std::to_string(m_fd.Get()));
    if (!again) {
        Say(log, "cannot be opened again: " + ErrnoText(errno) + ". The last picture stays");
    }
    m_fd = std::move(again);
    return true;
}

void FifoInput::Say(const Log& log, const std::string& text) const {
    if (log) {
        log(m_path + ": " + text);
    }
}

}  // namespace zumod::vcam
