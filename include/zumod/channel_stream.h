// The byte stream to the remote peer, which the host implements and passes to the plugin.
//
// Thread rule: Read is called on the run thread, Write on the run thread and the send thread, possibly at
// once.
#pragma once

#include <cstdint>

#include "zumod/reference.h"

namespace zumod {

// Binary table: slots 0 to 3 are IReference's. The plugin holds one reference from SetChannelStream on.
//
// Both operations block until at least one byte is transferred. On success they return 0 and store a count
// between 1 and `size` in `done`. At the end of the stream and on every error they return non-zero; a success
// of 0 bytes is not allowed. To end the plugin's Run, let Read fail; to end a blocked Write, let it fail.
class IChannelStream : public virtual IReference {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slot 4 [run thread]. Reads up to `size` bytes into `data`, which the caller owns.
    virtual int Read(void* data, unsigned long size, unsigned long* done) = 0;

    // Slot 5 [run thread, send thread]. Writes up to `size` bytes from `data`, which the caller owns. Calls
    // from the two threads may overlap: the stream keeps the bytes of one call together. Write must not throw
    // on the send thread: nothing catches the exception there.
    virtual int Write(const void* data, unsigned long size, unsigned long* done) = 0;
};

static_assert(sizeof(IChannelStream) == sizeof(void*), "IReference must be the primary base");

}  // namespace zumod
