// The buffers of a camera and the file that owns them: REQBUFS, QUERYBUF, mmap, STREAMON and STREAMOFF, and
// the camera's side of the board (camera_board.h).
//
// Thread rule: the camera's lock guards it.
#pragma once

#include <linux/videodev2.h>

#include <cstdint>
#include <memory>
#include <optional>

#include "vcam/model/buffer_pool.h"
#include "vcam/model/camera_board.h"
#include "vcam/model/fault_set.h"
#include "vcam/model/open_file.h"

namespace zumod::vcam {

class BufferQueue {
public:
    // `grant`: the number of buffers that REQBUFS grants, independent of the request.
    BufferQueue(CameraBoard& board, std::optional<uint32_t> grant, const FaultSet& faults)
        : m_board(board), m_grant(grant), m_faults(faults) {}

    // Each returns 0 or errno. Buffers are `length` bytes long. A file that owns buffers must not move until
    // Disown.
    int Request(const OpenFile& file, v4l2_requestbuffers& request, uint32_t length);
    int Query(v4l2_buffer& buffer) const;
    int Map(const OpenFile& file, uint64_t offset, uint64_t length, bool writes, UniqueFd& descriptor);
    int StreamOn(const OpenFile& file, uint32_t& type);
    int StreamOff(const OpenFile& file, uint32_t& type);

    // Returns every buffer to the program.
    void Stop();
    // Stops delivering frames until STREAMOFF; DQBUF fails with EIO.
    void Fail();
    void Free();

    // The owner closed its file. Like the kernel, the camera stays in use until its memory is unmapped too.
    void Disown();
    bool HasOwnerClosed() const { return m_pool != nullptr && m_owner == nullptr; }
    // If the owner closed its file: ends the camera's own mapping, and frees the buffers if there is no
    // other. The frame thread must not be painting.
    void FreeIfUnmapped();

    // The memory of the buffers, or null.
    std::shared_ptr<BufferPool> Pool() const { return m_pool; }
    // The buffer that has been queued longest, or -1.
    int Oldest() const { return m_board.Oldest(); }
    // Marks a queued buffer as filled and describes it. Returns false if the program did not leave it queued.
    bool Complete(uint32_t index, v4l2_buffer& buffer);
    // Sends the owner a frame, or makes its descriptor readable without one.
    void SendFrame(Record& record) const { Send(record, RecordKind::kFrame); }
    void SendEmpty() const;

    bool HasBuffers() const { return m_pool != nullptr; }
    bool IsOwner(const OpenFile& file) const { return m_owner == &file; }
    // Whether a program still has the owning file open.
    bool IsOwnerThere() const { return m_owner != nullptr && !m_owner->IsAbandoned(); }
    // Changes with each start, stop and failure of a stream.
    uint32_t Stream() const { return m_board.stream.load(std::memory_order_relaxed); }
    bool IsStreaming() const { return (Stream() & CameraBoard::kStreaming) != 0; }
    bool HasFailed() const { return (Stream() & CameraBoard::kFailed) != 0; }

private:
    bool IsBusyFor(const OpenFile& file) const { return HasBuffers() && !IsOwner(file); }
    uint32_t Grant(uint32_t asked) const;
    void Send(Record& record, RecordKind kind) const;

    CameraBoard& m_board;
    const std::optional<uint32_t> m_grant;
    const FaultSet& m_faults;
    std::shared_ptr<BufferPool> m_pool;
    const OpenFile* m_owner = nullptr;
};

}  // namespace zumod::vcam
