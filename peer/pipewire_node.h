// Lent cameras as nodes of the user's PipeWire, where browsers, players and other programs find cameras.
//
// The library is loaded when it is needed (dlopen), so that the program also runs on a machine without it.
// Order of calls: Connect() makes the socket, which a sandbox does not permit later; Start() loads the
// library and starts its data thread, which a sandbox does not permit earlier.
//
// Threads: the library's main loop runs in the program's Waiter, so every call and every callback is on the
// main thread. The library's data thread only moves finished buffers; no code of this program runs on it. The
// callbacks come while any part of the program waits, also while the main thread waits for the thread that
// decodes: they take a picture only through the mailbox.
//
// A node drives its graph: each Present() is one round. A reader that is slow has no free buffer then, and
// misses the picture; nobody waits for it.
//
// Thread rule: the main thread. Mailbox(): one thread at a time writes to it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/unique_fd.h"
#include "common/waiter.h"
#include "peer/camera_list.h"
#include "peer/picture_mailbox.h"
#include "peer/published_camera.h"

namespace zumod::peer {

class PipeWire {
public:
    // The socket of the PipeWire of this user's session.
    static Expected<UniqueFd> Connect();
    // `waiter` is borrowed, and must not be used by a callback.
    static Expected<std::unique_ptr<PipeWire>> Start(UniqueFd socket, Waiter& waiter);

    PipeWire() = default;
    PipeWire(const PipeWire&) = delete;
    PipeWire& operator=(const PipeWire&) = delete;
    virtual ~PipeWire() = default;

    // Why no node works any more; empty while they do.
    virtual std::string Failure() const = 0;
};

// What readers may choose from.
struct NodeSettings {
    std::string name;         // stable: programs recognise the camera by it
    std::string description;  // what people see
    std::vector<PictureSize> sizes;
    StreamFormat preferred;  // its size is one of `sizes`
};

// Called while the program waits. They must not wait.
struct NodeEvents {
    // The first reader came, or the last one left.
    std::function<void(bool any)> on_readers;
    // Readers agreed on the format of the pictures.
    std::function<void(StreamFormat format, VideoTargetFormat target)> on_format;
    // PipeWire reports an error of the node, which may work or not from now on. Safe for a terminal.
    std::function<void(const std::string& text)> on_error;
};

class PipeWireNode {
public:
    // `pipewire` is borrowed.
    static Expected<std::unique_ptr<PipeWireNode>> Create(PipeWire& pipewire, const NodeSettings& settings,
                                                          NodeEvents events);

    PipeWireNode() = default;
    PipeWireNode(const PipeWireNode&) = delete;
    PipeWireNode& operator=(const PipeWireNode&) = delete;
    virtual ~PipeWireNode() = default;

    virtual PictureMailbox& Mailbox() = 0;
    // Shows the newest picture in the mailbox to the readers, if it has their format.
    virtual void Present() = 0;
};

// Whether readers can be offered this size. Programs disagree on the length of a chroma row if a luma row is
// not a multiple of 8, and nobody needs the memory of a picture beyond 3840x2176.
constexpr bool CanBeOffered(PictureSize size) {
    constexpr uint64_t kMostPixels = uint64_t{3840} * 2176;
    return size.width > 0 && size.height > 0 && size.width % 8 == 0 && size.height % 2 == 0 &&
           uint64_t{size.width} * size.height <= kMostPixels;
}

}  // namespace zumod::peer
