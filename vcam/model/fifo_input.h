// The FIFO from which a camera takes its pictures.
//
// It is opened without waiting for a writer and read as fast as a writer writes: a slow program loses
// pictures and never slows the writer down. When the last writer has gone, the incomplete picture is
// forgotten, and the next writer may come. The FIFO must then be opened again, because poll() reports the
// hang-up of a descriptor until then: first the new descriptor, then the old one is closed, so that a writer
// that comes meanwhile always has a reader. It is opened by its descriptor, not by its name, which may belong
// to another file by now.
//
// A writer that comes and goes between the end and the new descriptor leaves bytes and no hang-up. Therefore
// a read that empties the pipe is followed by a second one, which sees that end. More are not needed: poll()
// reports the hang-up of a writer that was there after the descriptor was opened.
//
// The thread that reads also answers the programs that use the cameras. A read takes at most a sixteenth of
// the pipe, so that no request waits until a pipe full of pictures is converted.
//
// Thread rule: one thread at a time.
#pragma once

#include <functional>
#include <string>

#include "common/error.h"
#include "common/unique_fd.h"
#include "common/waiter.h"
#include "vcam/model/camera_config.h"
#include "vcam/picture/picture_stream.h"

namespace zumod::vcam {

class FifoInput {
public:
    using Log = std::function<void(const std::string&)>;

    // Fails if the FIFO cannot be opened.
    static Expected<FifoInput> Open(const LiveSource& source);
    FifoInput(FifoInput&&) = default;

    int Descriptor() const { return m_fd.Get(); }

    // Reads at most twice, 64 KiB each. The log gets a line for a stream that is refused, at most one per
    // second. Returns whether the descriptor is a new one, or invalid: then the input has ended, and the log
    // says why.
    bool OnReadable(const PictureStream::OnPicture& on_picture, const Log& log);

private:
    FifoInput(const LiveSource& source, UniqueFd fd);

    bool OpenAgain(const Log& log);
    void Say(const Log& log, const std::string& text) const;

    std::string m_path;
    UniqueFd m_fd;
    PictureStream m_stream;
    std::vector<uint8_t> m_bytes;
    Clock::time_point m_refused;  // the last line about a stream that was refused
};

}  // namespace zumod::vcam
