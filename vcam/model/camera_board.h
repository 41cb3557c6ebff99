// The memory that a camera shares with the programs that use it: the state of its stream and of each buffer,
// so that QBUF and DQBUF need no round trip. wire.h explains the protocol.
//
// Thread rule: any thread of any process; each word is atomic by itself.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "vcam/model/wire.h"

namespace zumod::vcam {

enum class BufferState : uint8_t { kDequeued, kQueued, kDone };

struct CameraBoard {
    // Bits of `slow`: these calls ask the camera first, because a fault counts them.
    static constexpr uint32_t kSlowDequeue = 1;
    static constexpr uint32_t kSlowQueue = 2;
    // Bits of `stream`; the bits above them count the streams.
    static constexpr uint32_t kStreaming = 1;
    static constexpr uint32_t kFailed = 2;
    static constexpr uint32_t kStreamStep = 4;

    // Written only by the camera. The reply to the request that changed them orders them for the program.
    std::atomic<uint32_t> plug;   // 1, plus the number of times the camera was unplugged
    std::atomic<uint32_t> owner;  // the file that has the buffers, or 0
    std::atomic<uint32_t> stream;
    std::atomic<uint32_t> slow;
    std::atomic<uint32_t> count;   // of buffers
    std::atomic<uint32_t> length;  // of each buffer
    std::atomic<uint32_t> buffer_stride;
    std::atomic<uint32_t> mapped;          // one bit per buffer
    std::atomic<uint32_t> pending_events;  // of the owning file

    // Written by both sides. The low byte is the buffer's state, the rest the ticket it got when it was
    // queued.
    std::atomic<uint64_t> next_ticket;
    std::atomic<uint64_t> buffers[kMaxBuffers];

    static BufferState StateOf(uint64_t word) { return static_cast<BufferState>(word & 0xff); }

    // Moves a buffer from one state to another. Returns false if it is not in the first.
    bool Move(uint32_t index, BufferState from, BufferState to) {
        uint64_t word = buffers[index].load(std::memory_order_acquire);
        while (StateOf(word) == from) {
            const uint64_t next =
                to == BufferState::kQueued
                    ? (next_ticket.fetch_add(1, std::memory_order_relaxed) << 8) | static_cast<uint64_t>(to)
                    : static_cast<uint64_t>(to);
            if (buffers[index].compare_exchange_weak(word, next, std::memory_order_acq_rel)) {
                return true;
            }
        }
        return false;
    }

    // The buffer that has been queued longest, or -1.
    int Oldest() const {
        int oldest = -1;
        uint64_t ticket = UINT64_MAX;
        const uint32_t buffer_count = count.load(std::memory_order_acquire);
        for (uint32_t i = 0; i < buffer_count && i < kMaxBuffers; ++i) {
            const uint64_t word = buffers[i].load(std::memory_order_acquire);
            if (StateOf(word) == BufferState::kQueued && (word >> 8) < ticket) {
                ticket = word >> 8;
                oldest = static_cast<int>(i);
            }
        }
        return oldest;
    }

    // Fills in the description of a buffer in its current state, without a frame.
    void Describe(uint32_t index, v4l2_buffer& buffer) const {
        uint32_t flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
        if ((mapped.load(std::memory_order_relaxed) >> index & 1) != 0) {
            flags |= V4L2_BUF_FLAG_MAPPED;
        }
        switch (StateOf(buffers[index].load(std::memory_order_acquire))) {
            case BufferState::kQueued:
                flags |= V4L2_BUF_FLAG_QUEUED;
                break;
            case BufferState::kDone:
                flags |= V4L2_BUF_FLAG_DONE;
                break;
            case BufferState::kDequeued:
                break;
        }
        buffer = {};
        buffer.index = index;
        buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffer.flags = flags;
        buffer.field = V4L2_FIELD_NONE;
        buffer.memory = V4L2_MEMORY_MMAP;
        buffer.m.offset = index * buffer_stride.load(std::memory_order_relaxed);
        buffer.length = length.load(std::memory_order_relaxed);
    }
};
static_assert(std::atomic<uint64_t>::is_always_lock_free && std::atomic<uint32_t>::is_always_lock_free);

}  // namespace zumod::vcam
