// The byte stream to the remote peer, which the host implements and gives to the plugin.
#pragma once

#include <cstdint>

#include "zumod/reference.h"

namespace zumod {

// Binary table: slots 0 to 3 are IReference's. The plugin holds one reference from SetChannelStream on.
//
// Both operations block until at least one byte is done. On success they return 0 and store a count between 1
// and `size`; the end of the stream and every error are a non-zero result, never a success of 0 bytes. To end
// the plugin's Run, let Read fail; to end a Write that waits, let it fail.
class IChannelStream : public virtual IReference {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slot 4 [run thread]. Reads up to `size` bytes into `data`, which the caller owns.
    virtual int Read(void* data, unsigned long size, unsigned long* done) = 0;

    // Slot 5 [run thread, send thread]. Writes up to `size` bytes from `data`, which the caller owns. Calls
    // from the two threads may overlap: the stream keeps the bytes of one call together. On the send thread
    // nothing catches: Write must not throw there.
    virtual int Write(const void* data, unsigned long size, unsigned long* done) = 0;
};

static_assert(sizeof(IChannelStream) == sizeof(void*), "IReference must be the primary base");

}  // namespace zumod
